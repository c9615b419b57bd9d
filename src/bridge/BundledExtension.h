#pragma once

#include <QString>
#include <QStringList>
#include <optional>

// The unpacked companion extension shipped with the application, for the user to load into the browser.
namespace velnora::BundledExtension {

// Where to look, in order: "share/velnora/extension" beside the executable's folder (an installed or
// relocated package, or the build folder, which links it to the source tree), then the configured
// install data folder.
QStringList candidateFolders(const QString& executablePath);
// The first candidate that holds a "manifest.json".
std::optional<QString> firstWithManifest(const QStringList& candidates);
std::optional<QString> folderURL();

} // namespace velnora::BundledExtension
