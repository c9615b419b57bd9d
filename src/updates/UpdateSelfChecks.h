#pragma once

#include <QString>

// Built-in checks of the "--update-self-test" mode: manifest validation, version order and the
// extension sentence, without any network. Returns the first failure in words, or an empty string.
namespace velnora::UpdateSelfChecks {

QString failure();

} // namespace velnora::UpdateSelfChecks
