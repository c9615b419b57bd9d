#pragma once

#include "bridge/ChromeExtensionInstall.h"

#include <QString>
#include <QStringList>
#include <optional>
#include <vector>

// Firefox as a carrier of the companion extension: where it keeps profiles and reads host manifests,
// which profile it starts with, whether that profile runs, and what it says about our extension.
namespace velnora::FirefoxBrowser {

struct Installation
{
    QString id;           // "firefox", "firefox-xdg", "firefox-snap", "firefox-flatpak"
    QString profilesRoot; // folder of profiles.ini, relative to $HOME
    QString hostsFolder;  // native-messaging-hosts, relative to $HOME
    QString title;        // what the user calls it
    // Flatpak's Firefox cannot start a host outside its sandbox, and its pids are its own.
    bool sandboxed = false;
};

// The classic ~/.mozilla, the XDG folder of newer releases (which still read host manifests from
// ~/.mozilla), the Snap build (which reaches hosts through the portal), then the Flatpak one.
const std::vector<Installation>& all();

QString profilesRoot(const Installation& installation);
QString nativeMessagingHostsDirectory(const Installation& installation);

// Firefox has run here: profiles.ini exists.
bool isInUse(const Installation& installation);
// Host manifests belong there: the installation's top folder (~/.mozilla, ~/snap/firefox) exists.
bool hasDataFolder(const Installation& installation);

// The profile Firefox starts with: the Default of an [Install…] section, else the profile marked
// Default=1, else the only one. Relative paths are taken from the root.
std::optional<QString> defaultProfile(const QString& root);

// The profile's extensions.json: an entry with that ID is installed (enabled or not), none is absent;
// unknown when the file cannot be read.
ChromeExtensionInstall inspect(const QString& extensionIdentifier, const QString& profileFolder);

// The profile's "lock" link ("<address>:+<pid>") names a live process; in a sandbox the link itself.
bool isRunning(const QString& profileFolder, bool sandboxed = false);

// firefox, firefox-esr or the Developer Edition, the first found on PATH.
std::optional<QString> findProgram();

} // namespace velnora::FirefoxBrowser
