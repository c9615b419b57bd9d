#pragma once

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QString>
#include <sys/stat.h>
#include <sys/time.h>

namespace velnora::test {

inline bool writeFile(const QString& path, const QByteArray& bytes)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(bytes) == bytes.size();
}

inline QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// Sets both times of a file to secondsSince1970.
inline bool setModificationTime(const QString& path, double secondsSince1970)
{
    timeval times[2];
    times[0].tv_sec = time_t(secondsSince1970);
    times[0].tv_usec = suseconds_t((secondsSince1970 - double(times[0].tv_sec)) * 1e6);
    times[1] = times[0];
    return ::lutimes(QFile::encodeName(path).constData(), times) == 0;
}

inline unsigned permissions(const QString& path)
{
    struct stat info
    {
    };
    ::stat(QFile::encodeName(path).constData(), &info);
    return info.st_mode & 07777;
}

} // namespace velnora::test
