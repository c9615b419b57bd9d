#include "bridge/RequestStore.h"

#include "bridge/AtomicFile.h"
#include "bridge/FileSystemError.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStandardPaths>
#include <QTextBoundaryFinder>
#include <QUuid>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

namespace velnora {

namespace {

constexpr double sweepAgeSeconds = 3600;

QByteArray nativePath(const QString& path)
{
    return QFile::encodeName(path);
}

double modificationSeconds(const struct stat& info)
{
    return double(info.st_mtim.tv_sec) + double(info.st_mtim.tv_nsec) / 1e9;
}

// Names of the directory's entries; hidden ones only when asked. Throws on a listing failure.
QStringList listDirectory(const QString& directory, bool includeHidden)
{
    DIR* handle = ::opendir(nativePath(directory).constData());
    if (!handle) {
        throw FileSystemError::fromErrno(directory);
    }
    QStringList names;
    errno = 0;
    while (const dirent* entry = ::readdir(handle)) {
        const char* name = entry->d_name;
        if (name[0] == '.' && (!includeHidden || name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) {
            continue;
        }
        names.append(QFile::decodeName(name));
    }
    const int error = errno;
    ::closedir(handle);
    if (error != 0) {
        throw FileSystemError(error, directory);
    }
    return names;
}

void makeDirectory(const QString& path)
{
    if (!QDir().mkpath(path)) {
        // mkpath hides errno; ask the system once more for the real reason.
        const int result = ::mkdir(nativePath(path).constData(), 0700);
        throw FileSystemError(result == 0 ? EIO : errno, path);
    }
}

} // namespace

RequestStore::RequestStore(std::optional<QString> baseDirectory)
{
    if (baseDirectory) {
        m_baseDirectory = *baseDirectory;
    } else if (const std::optional<QString> override = dataDirectoryOverride()) {
        m_baseDirectory = *override;
    } else {
        m_baseDirectory = defaultDirectory();
        // The place to carry data over when the folder name changes; today both names are the same.
        migrateLegacyDirectory(defaultDirectory(), m_baseDirectory);
    }
    m_queueDirectory = QDir(m_baseDirectory).filePath(QString::fromLatin1(queueFolderName));
    const double now = nowSeconds();
    sweepStaleWriteTemporaries(m_baseDirectory, sweepAgeSeconds, now);
    sweepStaleWriteTemporaries(m_queueDirectory, sweepAgeSeconds, now);
}

QString RequestStore::heartbeatFilePath() const
{
    return QDir(m_baseDirectory).filePath(QString::fromLatin1(heartbeatFileName));
}

QString RequestStore::appStatusFilePath() const
{
    return QDir(m_baseDirectory).filePath(QString::fromLatin1(appStatusFileName));
}

QString RequestStore::extensionStatusFilePath() const
{
    return QDir(m_baseDirectory).filePath(QString::fromLatin1(extensionStatusFileName));
}

QString RequestStore::requestFilePath(const QString& requestID) const
{
    return QDir(m_queueDirectory).filePath(requestID + QStringLiteral(".json"));
}

std::optional<QString> RequestStore::dataDirectoryOverride()
{
    for (const char* name : {"VELNORA_DATA_DIR", "BRINKWELL_DATA_DIR"}) {
        const QString value = qEnvironmentVariable(name);
        if (!value.isEmpty()) {
            return value;
        }
    }
    return std::nullopt;
}

QString RequestStore::defaultDirectory()
{
    return QDir(QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation))
        .filePath(QString::fromLatin1(folderName));
}

void RequestStore::migrateLegacyDirectory(const QString& legacy, const QString& target)
{
    if (QDir::cleanPath(legacy) == QDir::cleanPath(target)) {
        return;
    }
    struct stat info
    {
    };
    if (::lstat(nativePath(legacy).constData(), &info) != 0 ||
        ::lstat(nativePath(target).constData(), &info) == 0) {
        return;
    }
    QDir().mkpath(QFileInfo(target).absolutePath());
    ::rename(nativePath(legacy).constData(), nativePath(target).constData());
}

void RequestStore::ensureDirectories() const
{
    makeDirectory(m_baseDirectory);
    makeDirectory(m_queueDirectory);
    AtomicFile::setPermissions(m_baseDirectory, 0700);
    AtomicFile::setPermissions(m_queueDirectory, 0700);
}

double RequestStore::nowSeconds()
{
    using namespace std::chrono;
    return double(duration_cast<microseconds>(system_clock::now().time_since_epoch()).count()) / 1e6;
}

BridgeRequest RequestStore::enqueue(BridgeRequestType type, std::optional<QString> text,
                                    std::optional<QString> provider, std::optional<QString> depthInstruction)
{
    BridgeRequest request;
    request.id = QUuid::createUuid().toString(QUuid::WithoutBraces).toLower();
    request.type = type;
    request.text = std::move(text);
    request.provider = std::move(provider);
    request.depthInstruction = std::move(depthInstruction);
    request.createdAt = nowSeconds() * 1000;

    ensureDirectories();
    const QByteArray bytes = request.encode();
    // The hidden name is never listed, so writing it in place is as safe as a second rename.
    const QString temporary = QDir(m_queueDirectory).filePath(u'.' + request.id + QStringLiteral(".tmp"));
    AtomicFile::writeNew(temporary, bytes);
    // Permissions go on before the rename: once in place, the host may deliver and delete the record
    // before we could touch it again.
    AtomicFile::setPermissions(temporary, 0600);
    const QString target = requestFilePath(request.id);
    if (::rename(nativePath(temporary).constData(), nativePath(target).constData()) != 0) {
        throw FileSystemError::fromErrno(target);
    }
    return request;
}

std::vector<RequestStore::Pending> RequestStore::pendingRequests() const
{
    ensureDirectories();
    std::vector<Pending> pending;
    for (const QString& name : listDirectory(m_queueDirectory, false)) {
        if (!name.endsWith(QStringLiteral(".json")) || name.size() == 5) {
            continue;
        }
        const QString path = QDir(m_queueDirectory).filePath(name);
        bool readable = false;
        const QByteArray bytes = AtomicFile::read(path, &readable);
        if (!readable) {
            continue;
        }
        if (std::optional<BridgeRequest> request = BridgeRequest::decode(bytes)) {
            pending.push_back({std::move(*request), path});
        }
    }
    std::sort(pending.begin(), pending.end(), [](const Pending& a, const Pending& b) {
        if (a.request.createdAt != b.request.createdAt) {
            return a.request.createdAt < b.request.createdAt;
        }
        return a.request.id < b.request.id;
    });
    return pending;
}

bool RequestStore::isValidRequestIdentifier(const QString& requestID)
{
    if (requestID.isEmpty()) {
        return false;
    }
    // "Characters" are what a reader sees: a letter with its combining marks counts once.
    QTextBoundaryFinder graphemes(QTextBoundaryFinder::Grapheme, requestID);
    int count = 0;
    while (graphemes.toNextBoundary() != -1) {
        if (++count > 80) {
            return false;
        }
    }
    for (const char32_t scalar : requestID.toUcs4()) {
        if (scalar == U'-') {
            continue;
        }
        switch (QChar::category(scalar)) {
        case QChar::Letter_Uppercase:
        case QChar::Letter_Lowercase:
        case QChar::Letter_Titlecase:
        case QChar::Letter_Modifier:
        case QChar::Letter_Other:
        case QChar::Mark_NonSpacing:
        case QChar::Mark_SpacingCombining:
        case QChar::Mark_Enclosing:
        case QChar::Number_DecimalDigit:
        case QChar::Number_Letter:
        case QChar::Number_Other:
            break;
        default:
            return false;
        }
    }
    return true;
}

bool RequestStore::contains(const QString& requestID) const
{
    if (!isValidRequestIdentifier(requestID)) {
        return false;
    }
    return ::access(nativePath(requestFilePath(requestID)).constData(), F_OK) == 0;
}

void RequestStore::acknowledge(const QString& requestID) const
{
    if (!isValidRequestIdentifier(requestID)) {
        return;
    }
    const QString path = requestFilePath(requestID);
    if (::unlink(nativePath(path).constData()) != 0 && errno != ENOENT) {
        throw FileSystemError::fromErrno(path);
    }
}

void RequestStore::removePending(BridgeRequestType type) const
{
    for (const Pending& pending : pendingRequests()) {
        if (pending.request.type == type) {
            ::unlink(nativePath(pending.filePath).constData());
        }
    }
}

void RequestStore::markBridgeActive() const
{
    ensureDirectories();
    const QByteArray text = QByteArray::number(nowSeconds(), 'f', QLocale::FloatingPointShortest);
    AtomicFile::write(heartbeatFilePath(), text);
    AtomicFile::setPermissions(heartbeatFilePath(), 0600);
}

bool RequestStore::isBridgeActive(double maximumAge) const
{
    struct stat info
    {
    };
    if (::stat(nativePath(heartbeatFilePath()).constData(), &info) != 0) {
        return false;
    }
    // A modification time in the future counts as alive.
    return nowSeconds() - modificationSeconds(info) <= maximumAge;
}

void RequestStore::writeAppStatus(bool accessibilityTrusted) const
{
    ensureDirectories();
    const QJsonObject status{
        {QStringLiteral("pid"), qint64(::getpid())},
        {QStringLiteral("accessibilityTrusted"), accessibilityTrusted},
        {QStringLiteral("chromeBridgeActive"), isBridgeActive(4.0)},
        {QStringLiteral("pendingRequestCount"), qint64(pendingRequests().size())},
        {QStringLiteral("updatedAt"), nowSeconds() * 1000},
    };
    AtomicFile::write(appStatusFilePath(), QJsonDocument(status).toJson(QJsonDocument::Compact));
    AtomicFile::setPermissions(appStatusFilePath(), 0600);
}

bool RequestStore::isAtomicWriteTemporary(const QString& name)
{
    const qsizetype marker = name.lastIndexOf(QStringLiteral(".sb-"));
    if (marker <= 0) {
        return false;
    }
    const QStringList pieces = name.mid(marker + 4).split(u'-', Qt::KeepEmptyParts);
    if (pieces.size() != 2 || pieces[0].size() != 8 || pieces[1].size() != 6) {
        return false;
    }
    const auto isHex = [](QChar c) {
        return (c >= u'0' && c <= u'9') || (c >= u'a' && c <= u'f') || (c >= u'A' && c <= u'F');
    };
    return std::all_of(pieces[0].begin(), pieces[0].end(), isHex) &&
           std::all_of(pieces[1].begin(), pieces[1].end(), [](QChar c) { return c.isLetterOrNumber(); });
}

bool RequestStore::isEnqueueTemporary(const QString& name)
{
    if (!name.startsWith(u'.') || !name.endsWith(QStringLiteral(".tmp")) || name.size() <= 5) {
        return false;
    }
    return isValidRequestIdentifier(name.mid(1, name.size() - 5));
}

void RequestStore::sweepStaleWriteTemporaries(const QString& directory, double olderThan, double nowSeconds)
{
    QStringList names;
    try {
        names = listDirectory(directory, true);
    } catch (const FileSystemError&) {
        return;
    }
    for (const QString& name : names) {
        if (!isAtomicWriteTemporary(name) && !isEnqueueTemporary(name)) {
            continue;
        }
        const QByteArray path = nativePath(QDir(directory).filePath(name));
        struct stat info
        {
        };
        if (::lstat(path.constData(), &info) != 0) {
            continue;
        }
        if (nowSeconds - modificationSeconds(info) > olderThan) {
            if (::unlink(path.constData()) != 0 && errno == EISDIR) {
                QDir(QFile::decodeName(path)).removeRecursively();
            }
        }
    }
}

} // namespace velnora
