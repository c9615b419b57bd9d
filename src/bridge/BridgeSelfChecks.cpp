#include "bridge/BridgeSelfChecks.h"

#include "bridge/BridgeDiagnostics.h"
#include "bridge/ChromeProfileProbe.h"
#include "bridge/FileSystemError.h"
#include "bridge/NativeHostInstaller.h"
#include "config/ProviderCatalog.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <cerrno>
#include <sys/stat.h>

namespace velnora::BridgeSelfChecks {

namespace {

bool writeFile(const QString& path, const QByteArray& bytes)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(bytes) == bytes.size();
}

QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QByteArray manifestBytes(const QString& executable, const QString& origin)
{
    NativeHostInstaller::Manifest manifest = NativeHostInstaller::manifestFor(executable);
    manifest.allowedOrigins = {origin};
    return manifest.encode();
}

QByteArray preferencesWith(const QJsonObject& settings)
{
    return QJsonDocument(QJsonObject{{QStringLiteral("extensions"),
                                      QJsonObject{{QStringLiteral("settings"), settings}}}})
        .toJson();
}

} // namespace

QString installerFailure()
{
    QTemporaryDir root;
    if (!root.isValid()) {
        return QStringLiteral("no temporary folder");
    }
    const QString hosts = root.filePath(QStringLiteral("NativeMessagingHosts"));
    const QString executable = QStringLiteral("/opt/澜镜/bin/velnora");
    const QString expectedOrigin =
        QStringLiteral("chrome-extension://") + ExplainerConstants::extensionIdentifier() + u'/';
    try {
        const QString target = NativeHostInstaller::install(hosts, QUrl::fromLocalFile(executable));
        const QByteArray bytes = readFile(target);
        const std::optional<NativeHostInstaller::Manifest> manifest =
            NativeHostInstaller::Manifest::decode(bytes);
        if (!manifest || manifest->name != QLatin1String(NativeHostInstaller::hostName) ||
            manifest->path != executable || manifest->type != u"stdio" ||
            manifest->allowedOrigins != QStringList{expectedOrigin}) {
            return QStringLiteral("written manifest does not decode to the expected fields");
        }
        if (bytes.contains("\\/") || !bytes.startsWith("{\n")) {
            return QStringLiteral("manifest is not pretty printed with plain slashes");
        }
        struct stat before
        {
        };
        ::stat(QFile::encodeName(target).constData(), &before);
        if ((before.st_mode & 07777) != 0644) {
            return QStringLiteral("manifest mode is not 0644");
        }
        NativeHostInstaller::install(hosts, QUrl::fromLocalFile(executable));
        struct stat after
        {
        };
        ::stat(QFile::encodeName(target).constData(), &after);
        if (after.st_ino != before.st_ino || after.st_mtim.tv_nsec != before.st_mtim.tv_nsec ||
            after.st_mtim.tv_sec != before.st_mtim.tv_sec) {
            return QStringLiteral("unchanged manifest was rewritten");
        }
        NativeHostInstaller::install(hosts, QUrl::fromLocalFile(QStringLiteral("/opt/澜镜/./bin//velnora")));
        if (NativeHostInstaller::Manifest::decode(readFile(target))
                .value_or(NativeHostInstaller::Manifest{})
                .path != executable) {
            return QStringLiteral("executable path not written in standard form");
        }
    } catch (const FileSystemError& error) {
        return error.description();
    }
    const QString untouched = root.filePath(QStringLiteral("untouched"));
    try {
        NativeHostInstaller::install(untouched, QUrl(QStringLiteral("https://example.invalid/velnora")));
        return QStringLiteral("web address accepted as executable");
    } catch (const FileSystemError& error) {
        if (error.code() != ENOENT || QFileInfo::exists(untouched)) {
            return QStringLiteral("web address refused the wrong way");
        }
    }
    return {};
}

QString diagnosticsFailure()
{
    QTemporaryDir root;
    if (!root.isValid()) {
        return QStringLiteral("no temporary folder");
    }
    const QString identifier = ExplainerConstants::extensionIdentifier();
    const QString origin = QStringLiteral("chrome-extension://") + identifier + u'/';
    const QString manifest =
        root.filePath(QStringLiteral("hosts/") + QLatin1String(NativeHostInstaller::manifestFileName));
    int probes = 0;
    const auto probe = [&probes] {
        ++probes;
        return ChromeExtensionInstall::installed();
    };
    const auto check = [&](bool active, bool running) {
        return BridgeDiagnostics::diagnose(active, manifest, identifier, running, probe);
    };

    if (check(false, true) != BridgeDiagnosis::manifestMissing() ||
        check(true, false) != BridgeDiagnosis::connected()) {
        return QStringLiteral("missing manifest or live heartbeat misread");
    }
    const QString gone = QStringLiteral("/nonexistent/澜镜/bin/velnora");
    writeFile(manifest, manifestBytes(gone, origin));
    if (check(false, true) != BridgeDiagnosis::manifestPathBroken(gone)) {
        return QStringLiteral("broken manifest path not reported");
    }
    const QString executable = NativeHostInstaller::currentExecutablePath();
    writeFile(manifest, manifestBytes(executable, origin.chopped(1)));
    if (check(false, true) != BridgeDiagnosis::manifestOriginMismatch()) {
        return QStringLiteral("origin without trailing slash accepted");
    }
    writeFile(manifest, manifestBytes(executable, origin));
    if (check(false, false) != BridgeDiagnosis::chromeNotRunning() || probes != 0) {
        return QStringLiteral("stopped browser not reported, or profiles read too early");
    }
    if (check(false, true) != BridgeDiagnosis::extensionSilent(ChromeExtensionInstall::installed()) ||
        probes != 1) {
        return QStringLiteral("silent extension not reported");
    }

    const QString support = root.filePath(QStringLiteral("browser"));
    const QString folder = QStringLiteral("/tmp/velnora/extension");
    writeFile(support + QStringLiteral("/Local State"),
              R"({"profile":{"last_used":"Profile 3","info_cache":{"Default":{},"Profile 3":{}}}})");
    writeFile(support + QStringLiteral("/Default/Preferences"), preferencesWith({}));
    writeFile(
        support + QStringLiteral("/Profile 3/Preferences"),
        preferencesWith(
            {{identifier, QJsonObject{{QStringLiteral("location"), 4}, {QStringLiteral("path"), folder}}},
             {QStringLiteral("aaaabbbbccccddddeeeeffffgggghhhh"),
              QJsonObject{{QStringLiteral("location"), 4}, {QStringLiteral("path"), folder}}}}));
    if (ChromeProfileProbe::inspect(identifier, support) !=
        ChromeExtensionInstall::unpacked(folder, QStringLiteral("aaaabbbbccccddddeeeeffffgggghhhh"))) {
        return QStringLiteral("unpacked extension with stale entry not found");
    }
    writeFile(support + QStringLiteral("/Profile 3/Preferences"),
              preferencesWith({{QLatin1String(ChromeProfileProbe::otherEditionIdentifier), QJsonObject{}}}));
    if (identifier != QLatin1String(ChromeProfileProbe::otherEditionIdentifier) &&
        ChromeProfileProbe::inspect(identifier, support) != ChromeExtensionInstall::differentEdition()) {
        return QStringLiteral("other edition not reported");
    }
    if (ChromeProfileProbe::inspect(identifier, root.filePath(QStringLiteral("nothing"))) !=
        ChromeExtensionInstall::unknown()) {
        return QStringLiteral("unreadable profiles not reported as unknown");
    }
    return {};
}

} // namespace velnora::BridgeSelfChecks
