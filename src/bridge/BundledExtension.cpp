#include "bridge/BundledExtension.h"

#include "bridge/NativeHostInstaller.h"

#include <QDir>
#include <QFileInfo>

namespace velnora::BundledExtension {

QStringList candidateFolders(const QString& executablePath)
{
    const QString binDirectory = QFileInfo(executablePath).absolutePath();
    return {
        QDir::cleanPath(binDirectory + QStringLiteral("/../share/velnora/extension")),
        QDir::cleanPath(QStringLiteral(VELNORA_INSTALL_DATADIR "/velnora/extension")),
    };
}

std::optional<QString> firstWithManifest(const QStringList& candidates)
{
    for (const QString& folder : candidates) {
        if (QFileInfo(QDir(folder).filePath(QStringLiteral("manifest.json"))).isFile()) {
            return folder;
        }
    }
    return std::nullopt;
}

std::optional<QString> folderURL()
{
    return firstWithManifest(candidateFolders(NativeHostInstaller::currentExecutablePath()));
}

} // namespace velnora::BundledExtension
