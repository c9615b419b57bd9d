#pragma once

namespace velnora {

// How a browser admits our native host and names our extension: Chromium-family browsers by the
// extension's origin ("allowed_origins"), Firefox by its gecko ID ("allowed_extensions").
enum class BrowserFamily { chromium, firefox };

} // namespace velnora
