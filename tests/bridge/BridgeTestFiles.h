#pragma once

#include "support/TestEnvironment.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QStringList>
#include <filesystem>
#include <utility>

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

// The exit code (-1 when it hung) and the lines velnora printed for one flag.
inline std::pair<int, QStringList> runMode(const QString& flag)
{
    QProcess process;
    process.start(velnoraBinary(), {flag});
    const int exitCode = process.waitForFinished(20000) ? process.exitCode() : -1;
    return {exitCode, QString::fromUtf8(process.readAllStandardOutput()).split(u'\n', Qt::SkipEmptyParts)};
}

inline unsigned permissions(const QString& path)
{
    return unsigned(std::filesystem::status(QFile::encodeName(path).toStdString()).permissions());
}

// Firefox's extensions.json listing these add-ons, all enabled.
inline QByteArray extensionsJson(const QStringList& ids)
{
    QJsonArray addons;
    for (const QString& id : ids) {
        addons.append(QJsonObject{{"id", id}, {"active", true}, {"version", "2.11.1"}});
    }
    return QJsonDocument(QJsonObject{{"schemaVersion", 37}, {"addons", addons}}).toJson();
}

// A pid that surely names no process: one that has just finished.
inline qint64 finishedPid()
{
    QProcess finished;
    finished.start(QStringLiteral("/bin/true"));
    finished.waitForStarted(5000);
    const qint64 pid = finished.processId();
    finished.waitForFinished(5000);
    return pid;
}

} // namespace velnora::test
