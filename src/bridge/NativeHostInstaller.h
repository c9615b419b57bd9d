#pragma once

#include "bridge/BrowserFamily.h"

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QUrl>
#include <optional>

// Writes the manifest by which a browser finds and admits our native-messaging host.
namespace velnora::NativeHostInstaller {

inline constexpr const char* hostName = "com.tarnwick.velnora.domestic";
inline constexpr const char* manifestFileName = "com.tarnwick.velnora.domestic.json";
inline constexpr const char* legacyManifestFileName = "com.tarnwick.brinkwell.json";
inline constexpr const char* description = "澜镜 macOS 与 Chrome 会话桥";
inline constexpr const char* minimumExtensionVersion = "2.11.1";

struct Manifest
{
    QString name;
    QString description;
    QString path;
    QString type;
    QStringList allowedOrigins;    // Chromium family
    QStringList allowedExtensions; // Firefox

    // Pretty printed, keys sorted, slashes not escaped; the admission list of its family only.
    QByteArray encode() const;
    // nullopt unless every field is present with its type; one of the two lists is enough.
    static std::optional<Manifest> decode(const QByteArray& bytes);

    friend bool operator==(const Manifest&, const Manifest&) = default;
};

// The manifest for this build's host at that executable path.
Manifest manifestFor(const QString& executablePath, BrowserFamily family = BrowserFamily::chromium);

// The diagnosis's folder: Google Chrome's (or Chromium's when only it is present) NativeMessagingHosts.
QString hostDirectoryURL();

// The running executable (resolved through /proc/self/exe).
QString currentExecutablePath();
// The program a /proc/<pid>/exe link names. After an upgrade replaced the file under a running process
// the kernel reports "<path> (deleted)": the path itself is where the new program now is.
QString executablePathOf(const QString& exeLink);

// Writes host folder + manifestFileName unless its bytes are already the same; mode 0644. The executable
// must be a file URL (else ENOENT). Throws FileSystemError. Returns the manifest's path.
QString install(std::optional<QString> hostDirectory = std::nullopt,
                std::optional<QUrl> executableURL = std::nullopt,
                BrowserFamily family = BrowserFamily::chromium);

// Installs into Google Chrome's folder always, and into every other known browser's folder (Firefox's
// classic and Snap ones included) when that browser's data folder exists. Returns the manifests written or
// already current; throws the first failure only when not even Chrome's folder could be written.
QStringList installForAllBrowsers(std::optional<QUrl> executableURL = std::nullopt);

} // namespace velnora::NativeHostInstaller
