#include "bridge/FileSystemError.h"

#include <cerrno>
#include <cstring>

namespace velnora {

FileSystemError FileSystemError::fromErrno(const QString& path)
{
    return FileSystemError(errno, path);
}

QString FileSystemError::description() const
{
    return QStringLiteral("文件操作失败（%1）：%2（错误码 %3）")
        .arg(m_path, QString::fromLocal8Bit(std::strerror(m_code)))
        .arg(m_code);
}

} // namespace velnora
