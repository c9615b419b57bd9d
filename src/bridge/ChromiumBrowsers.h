#pragma once

#include <QString>
#include <QStringList>
#include <optional>
#include <vector>

// The Chromium-family browsers that can carry the companion extension, and where each keeps its data.
namespace velnora::ChromiumBrowsers {

struct Browser
{
    QString id;               // "google-chrome", "chromium", ...
    QString configFolder;     // user-data-dir relative to $XDG_CONFIG_HOME
    QStringList programs;     // executables to look for on PATH, preferred first
    QStringList processNames; // basenames of the browser's own executable as seen in /proc
};

// Google Chrome (stable, beta, unstable), Chromium, Brave, Edge, Vivaldi; Chrome stable first.
const std::vector<Browser>& all();
const Browser& googleChrome();

QString userDataDirectory(const Browser& browser);
bool hasUserDataDirectory(const Browser& browser);
QString nativeMessagingHostsDirectory(const Browser& browser);

// A browser has run with this data folder ("Local State" exists); our own manifest folder alone does
// not count.
bool isInUse(const Browser& browser);

// The browser the diagnosis looks at: Google Chrome, or Chromium when only Chromium is in use.
const Browser& primary();

// Whether a browser process of that user-data-dir is alive: the pid in its "SingletonLock" link
// ("<host>-<pid>") first, then a scan of /proc for a browser process (no "--type=") of that folder.
bool isRunning(const Browser& browser, const QString& userDataDirectory);

// The first of the browser's programs found on PATH.
std::optional<QString> findProgram(const Browser& browser);

} // namespace velnora::ChromiumBrowsers
