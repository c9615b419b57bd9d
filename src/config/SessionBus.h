#pragma once

// The user's D-Bus session bus, without connecting to it.
namespace velnora::SessionBus {

// An address is given, or the standard socket in XDG_RUNTIME_DIR exists. Without either, connecting
// would make libdbus autolaunch a private bus daemon that outlives this process.
bool isConfigured();

} // namespace velnora::SessionBus
