#pragma once

#include <QString>
#include <QStringList>
#include <optional>

// The unpacked companion extension shipped with the application, for the user to load into the browser.
namespace velnora::BundledExtension {

// Where to look, in order: "<executable>/../../share/velnora/extension" (an installed or relocated
// package), the source tree's "extension" (running from a build), the configured install data folder.
QStringList candidateFolders(const QString& executablePath);
// The first candidate that holds a "manifest.json".
std::optional<QString> firstWithManifest(const QStringList& candidates);
std::optional<QString> folderURL();

} // namespace velnora::BundledExtension
