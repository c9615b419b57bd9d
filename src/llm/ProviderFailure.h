#pragma once

#include "config/ConfigurationError.h"
#include "config/KeychainError.h"
#include "llm/LLMClientError.h"
#include "llm/NetworkError.h"

#include <variant>

namespace velnora {

// Any failure on the way from captured text to an answer in API mode.
using ProviderFailure = std::variant<KeychainError, ConfigurationError, LLMClientError, NetworkError>;

// The failure's own sentence (for logs and one-line command output).
QString describe(const ProviderFailure& failure);

} // namespace velnora
