#pragma once

#include <QString>
#include <exception>

namespace velnora {

// A failed file operation of the bridge, carrying the system's error number unchanged.
class FileSystemError : public std::exception
{
public:
    FileSystemError(int code, QString path) : m_code(code), m_path(std::move(path)) {}

    // Reads errno; call right after the failing system call.
    static FileSystemError fromErrno(const QString& path);

    int code() const { return m_code; }
    const QString& path() const { return m_path; }
    // "文件操作失败（<path>）：<the system's message>"
    QString description() const;
    const char* what() const noexcept override { return "FileSystemError"; }

private:
    int m_code;
    QString m_path;
};

} // namespace velnora
