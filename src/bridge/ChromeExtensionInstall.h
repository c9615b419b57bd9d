#pragma once

#include <QString>
#include <optional>

namespace velnora {

// What the browser's profile files say about the companion extension.
struct ChromeExtensionInstall
{
    enum class Kind { unpacked, absent, differentEdition, installed, unknown };

    Kind kind = Kind::unknown;
    QString path;                           // unpacked only: the folder it is loaded from
    std::optional<QString> staleIdentifier; // unpacked only: another entry pointing at the same folder

    static ChromeExtensionInstall unpacked(QString path, std::optional<QString> stale = std::nullopt)
    {
        return {Kind::unpacked, std::move(path), std::move(stale)};
    }
    static ChromeExtensionInstall absent() { return {Kind::absent, {}, {}}; }
    static ChromeExtensionInstall differentEdition() { return {Kind::differentEdition, {}, {}}; }
    static ChromeExtensionInstall installed() { return {Kind::installed, {}, {}}; }
    static ChromeExtensionInstall unknown() { return {Kind::unknown, {}, {}}; }

    friend bool operator==(const ChromeExtensionInstall&, const ChromeExtensionInstall&) = default;
};

} // namespace velnora
