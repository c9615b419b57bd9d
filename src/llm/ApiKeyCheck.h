#pragma once

#include <QString>
#include <optional>

namespace velnora::ApiKeyCheck {

// Why a key (already trimmed) cannot be sent: an HTTP header carries printable ASCII only, and keys
// copied from chat windows or documents often bring a zero-width space or a full-width letter along.
// The sentence names the first such character and where it is; none for a usable key. The settings
// window refuses to save a key with this sentence, and every request path reports it.
std::optional<QString> problem(const QString& key);

} // namespace velnora::ApiKeyCheck
