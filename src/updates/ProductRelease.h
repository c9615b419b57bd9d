#pragma once

#include <QByteArray>
#include <QString>
#include <QUrl>
#include <exception>
#include <map>
#include <optional>

namespace velnora {

// Why a release manifest was not accepted. The kinds mirror the URL-loading errors the check reports.
class ReleaseError : public std::exception
{
public:
    enum class Kind {
        decodingFailed,      // the JSON does not have the manifest's shape
        cannotParseResponse, // well-formed, but not for this edition, extension or site
        badServerResponse,   // status, size, host or manifest refused
        transport,           // no usable answer from the network at all
    };

    ReleaseError(Kind kind, QString detail) : m_kind(kind), m_detail(std::move(detail)) {}

    Kind kind() const { return m_kind; }
    // What went wrong, for logs and the self-test line; the user only ever sees one fixed sentence.
    const QString& detail() const { return m_detail; }
    const char* what() const noexcept override { return "ReleaseError"; }

private:
    Kind m_kind;
    QString m_detail;
};

namespace ProductRelease {

// The product's web site; "release.json" at its root describes the current downloads.
QUrl website();
QString version();
QString build();

struct Asset
{
    QString version;
    QString url; // a path on the web site
    std::optional<QString> extensionID;
    friend bool operator==(const Asset&, const Asset&) = default;
};

struct Manifest
{
    QString edition;
    Asset macos;
    Asset chrome;
    QString minimumExtensionVersion;
    // The Linux packages under "linux", one per Debian architecture ("amd64", "arm64", "loong64"…).
    // Where none is offered for this machine the running build counts as current.
    std::map<QString, Asset> linuxAssets;
    friend bool operator==(const Manifest&, const Manifest&) = default;
};

inline constexpr const char* editionName = "domestic";
// The Debian architecture this build was made for ("amd64").
QString architecture();
// The package the manifest offers for `architecture`, if any.
std::optional<Asset> linuxAsset(const Manifest& manifest,
                                const QString& architecture = ProductRelease::architecture());

// Decodes and validates a manifest; throws ReleaseError (decodingFailed or cannotParseResponse).
Manifest decode(const QByteArray& data);
// A download location the manifest may name: a plain path under /downloads/ on the same site.
bool isAllowedDownloadPath(const QString& path);
// Compares two version strings with digit runs taken as numbers: <0, 0 or >0.
int compareVersions(const QString& a, const QString& b);
inline bool isNewer(const QString& candidate, const QString& than)
{
    return compareVersions(candidate, than) > 0;
}

} // namespace ProductRelease
} // namespace velnora
