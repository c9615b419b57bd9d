#pragma once

#include "config/ConfigurationStore.h"

#include <QString>
#include <optional>

// What the settings window says when the application starts: the setup note on the very first
// launch, and, once, that there is no tray to hold the menu (stock GNOME has none).
namespace velnora::FirstRunHint {

QString setupMessage();
QString noTrayMessage(const QString& hotKeyTitle);

// The message for this launch, or nothing. Records what it returns, so each part is said once.
std::optional<QString> takeLaunchMessage(ConfigurationStore& store, bool trayAvailable,
                                         const QString& hotKeyTitle);

} // namespace velnora::FirstRunHint
