#pragma once

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <filesystem>

namespace velnora::test {

inline bool writeFile(const QString& path, const QByteArray& bytes)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

inline QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

inline bool setModificationTime(const QString& path, double secondsSince1970)
{
    QFile file(path);
    return file.open(QIODevice::Append) &&
           file.setFileTime(QDateTime::fromMSecsSinceEpoch(qint64(secondsSince1970 * 1000)),
                            QFileDevice::FileModificationTime);
}

inline unsigned permissions(const QString& path)
{
    return unsigned(std::filesystem::status(QFile::encodeName(path).toStdString()).permissions());
}

} // namespace velnora::test
