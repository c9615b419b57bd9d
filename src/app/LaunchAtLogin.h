#pragma once

#include <QString>
#include <optional>

// "登录时启动" through the desktop's XDG autostart folder.
namespace velnora::LaunchAtLogin {

// $XDG_CONFIG_HOME/autostart/velnora.desktop
QString autostartFilePath();
// The entry exists and is not switched off (Hidden, or the GNOME flag set to false).
bool isEnabled();
// Writes or removes the entry for this executable. The reason in Chinese when that failed.
std::optional<QString> setEnabled(bool enabled, const QString& executablePath);
// The entry's text: Exec quoted as desktop entries want it.
QByteArray entryText(const QString& executablePath);

} // namespace velnora::LaunchAtLogin
