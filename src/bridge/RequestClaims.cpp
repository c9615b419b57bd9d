#include "bridge/RequestClaims.h"

#include <QDir>
#include <QFile>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace velnora {

RequestClaims::RequestClaims(const QString& baseDirectory)
    : m_directory(QDir(baseDirectory).filePath(QString::fromLatin1(folderName)))
{}

RequestClaims::~RequestClaims()
{
    for (const int descriptor : std::as_const(m_descriptors)) {
        ::close(descriptor);
    }
}

QString RequestClaims::lockPath(const QString& requestID) const
{
    return m_directory + u'/' + requestID + QStringLiteral(".lock");
}

bool RequestClaims::tryClaim(const QString& requestID)
{
    if (holds(requestID)) {
        return true;
    }
    if (!QDir().mkpath(m_directory)) {
        return false;
    }
    const int descriptor =
        ::open(QFile::encodeName(lockPath(requestID)).constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (descriptor < 0) {
        return false;
    }
    if (::flock(descriptor, LOCK_EX | LOCK_NB) != 0) {
        ::close(descriptor);
        return false;
    }
    m_descriptors.insert(requestID, descriptor);
    return true;
}

void RequestClaims::release(const QString& requestID, bool forget)
{
    const auto it = m_descriptors.find(requestID);
    if (it == m_descriptors.end()) {
        return;
    }
    // Unlinked while still locked, so no other host can lock this file between the two steps.
    if (forget) {
        ::unlink(QFile::encodeName(lockPath(requestID)).constData());
    }
    ::close(*it);
    m_descriptors.erase(it);
}

void RequestClaims::sweep(const std::function<bool(const QString&)>& isQueued)
{
    const QStringList names = QDir(m_directory).entryList({QStringLiteral("*.lock")}, QDir::Files);
    for (const QString& name : names) {
        const QString id = name.chopped(5);
        if (holds(id) || !tryClaim(id)) {
            continue;
        }
        // Asked while holding the lock: a request queued meanwhile keeps its file.
        release(id, !isQueued(id));
    }
}

} // namespace velnora
