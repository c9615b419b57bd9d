#include "bridge/AtomicFile.h"

#include "bridge/FileSystemError.h"

#include <QFile>
#include <QRandomGenerator>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace velnora::AtomicFile {

namespace {

QString temporarySuffix()
{
    static constexpr char hex[] = "0123456789abcdef";
    static constexpr char alphanumerics[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    QRandomGenerator* random = QRandomGenerator::global();
    QString suffix = QStringLiteral(".sb-");
    for (int i = 0; i < 8; ++i) {
        suffix += QLatin1Char(hex[random->bounded(16)]);
    }
    suffix += u'-';
    for (int i = 0; i < 6; ++i) {
        suffix += QLatin1Char(alphanumerics[random->bounded(int(sizeof alphanumerics) - 1)]);
    }
    return suffix;
}

void writeAll(int fd, const QByteArray& bytes, const QString& path)
{
    qsizetype written = 0;
    while (written < bytes.size()) {
        const ssize_t n = ::write(fd, bytes.constData() + written, size_t(bytes.size() - written));
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            throw FileSystemError::fromErrno(path);
        }
        written += n;
    }
}

void createAndWrite(const QString& path, const QByteArray& bytes)
{
    const QByteArray native = QFile::encodeName(path);
    const int fd = ::open(native.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) {
        throw FileSystemError::fromErrno(path);
    }
    try {
        writeAll(fd, bytes, path);
    } catch (...) {
        ::close(fd);
        ::unlink(native.constData());
        throw;
    }
    if (::close(fd) != 0) {
        const FileSystemError error = FileSystemError::fromErrno(path);
        ::unlink(native.constData());
        throw error;
    }
}

} // namespace

void write(const QString& path, const QByteArray& bytes)
{
    const QString temporary = path + temporarySuffix();
    createAndWrite(temporary, bytes);
    if (::rename(QFile::encodeName(temporary).constData(), QFile::encodeName(path).constData()) != 0) {
        const FileSystemError error = FileSystemError::fromErrno(path);
        ::unlink(QFile::encodeName(temporary).constData());
        throw error;
    }
}

void writeNew(const QString& path, const QByteArray& bytes)
{
    createAndWrite(path, bytes);
}

QByteArray read(const QString& path, bool* ok)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *ok = false;
        return {};
    }
    QByteArray bytes = file.readAll();
    *ok = file.error() == QFileDevice::NoError;
    return bytes;
}

void setPermissions(const QString& path, unsigned mode)
{
    if (::chmod(QFile::encodeName(path).constData(), mode_t(mode)) != 0) {
        throw FileSystemError::fromErrno(path);
    }
}

} // namespace velnora::AtomicFile
