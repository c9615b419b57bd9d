#pragma once

#include <QString>

// Built-in checks run by the "--edition-self-test" and "--settings-self-test" modes.
// Each returns the first failure in words, or an empty string when every check holds.
namespace velnora::ConfigSelfChecks {

QString editionFailure();
// Works on a private settings file; the user's settings are never touched.
QString settingsFailure();

} // namespace velnora::ConfigSelfChecks
