#pragma once

#include "bridge/ChromeExtensionInstall.h"

#include <QString>
#include <QStringList>

// Reads a browser's profile files to learn how the companion extension is installed there.
namespace velnora::ChromeProfileProbe {

// The identifier of the other edition's extension, which this build's extension check reports as
// differentEdition; none when the expected identifier is that one itself.
inline constexpr const char* otherEditionIdentifier = "dgldcbgpnkooljhfhcjpkojcdnfkepnb";

// The primary browser's user-data-dir.
QString defaultSupportURL();

// Last used first, then "Local State"'s other profiles, then folders "Default" and "Profile *".
QStringList profileNames(const QString& root);

// Looks at each profile's "Secure Preferences" and "Preferences" (the entries live in the latter on
// Linux). A profile holding this edition's extension decides; otherwise the other edition anywhere gives
// differentEdition; otherwise absent when some profile file could be read, unknown when none could.
ChromeExtensionInstall inspect(const QString& extensionIdentifier, const QString& supportURL);
ChromeExtensionInstall inspect(const QString& extensionIdentifier);

// The same answer, remembered for ttl seconds per identifier and folder.
ChromeExtensionInstall inspectCached(double ttl, const QString& extensionIdentifier);
ChromeExtensionInstall inspectCached(double ttl, const QString& extensionIdentifier,
                                     const QString& supportURL);

} // namespace velnora::ChromeProfileProbe
