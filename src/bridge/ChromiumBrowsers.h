#pragma once

#include <QString>
#include <QStringList>
#include <optional>
#include <vector>

// The Chromium-family browsers that can carry the companion extension, and where each keeps its data.
namespace velnora::ChromiumBrowsers {

struct Browser
{
    // Flatpak and Snap builds run in a sandbox that may not let them start a host outside it.
    enum class Sandbox { none, flatpak, snap };

    QString id;               // "google-chrome", "chromium", "chromium-flatpak", ...
    QString configFolder;     // user-data-dir relative to $XDG_CONFIG_HOME, or to $HOME when sandboxed
    QStringList programs;     // executables to look for on PATH, preferred first
    QStringList processNames; // basenames of the browser's own executable as seen in /proc
    Sandbox sandbox = Sandbox::none;
    QString title; // what the user calls it
};

// Google Chrome (stable, beta, unstable), Chromium, Brave, Edge, Vivaldi, then the Flatpak and Snap
// builds; Chrome stable first.
const std::vector<Browser>& all();
const Browser& googleChrome();

QString userDataDirectory(const Browser& browser);
bool hasUserDataDirectory(const Browser& browser);
QString nativeMessagingHostsDirectory(const Browser& browser);

// A browser has run with this data folder ("Local State" exists); our own manifest folder alone does
// not count.
bool isInUse(const Browser& browser);

// Where manifests go when no browser is in use: Google Chrome, or Chromium when only Chromium is in use.
const Browser& primary();

// Whether a browser process of that user-data-dir is alive: the pid in its "SingletonLock" link
// ("<host>-<pid>") first, then a scan of /proc for a browser process (no "--type=") of that folder.
// Sandboxed builds: the lock only.
bool isRunning(const Browser& browser, const QString& userDataDirectory);

// A process of that pid exists (possibly another user's).
bool isProcessAlive(qint64 pid);

// The first of the browser's programs found on PATH.
std::optional<QString> findProgram(const Browser& browser);

} // namespace velnora::ChromiumBrowsers
