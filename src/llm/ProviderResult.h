#pragma once

#include "llm/ProviderFailure.h"

#include <variant>

namespace velnora {

// The outcome of an asynchronous request: a value, or the failure that ended it.
// ProviderDiagnostics::diagnose(result.failure()) turns a failure into the sentence for the user.
template <typename Value> class ProviderResult
{
public:
    static ProviderResult success(Value value) { return ProviderResult(std::move(value)); }
    static ProviderResult failed(ProviderFailure failure) { return ProviderResult(std::move(failure)); }

    bool ok() const { return std::holds_alternative<Value>(m_state); }
    const Value& value() const { return std::get<Value>(m_state); }
    const ProviderFailure& failure() const { return std::get<ProviderFailure>(m_state); }

    // The client error of a failure, or nullptr (success, or another kind of failure).
    const LLMClientError* clientError() const
    {
        return ok() ? nullptr : std::get_if<LLMClientError>(&failure());
    }
    const NetworkError* networkError() const
    {
        return ok() ? nullptr : std::get_if<NetworkError>(&failure());
    }
    bool isCancelled() const
    {
        const LLMClientError* error = clientError();
        return error && error->kind() == LLMClientError::Kind::cancelled;
    }

private:
    explicit ProviderResult(Value value) : m_state(std::in_place_index<0>, std::move(value)) {}
    explicit ProviderResult(ProviderFailure failure) : m_state(std::in_place_index<1>, std::move(failure)) {}

    std::variant<Value, ProviderFailure> m_state;
};

// A stream carries its text in the deltas; its completion only says how it ended.
using StreamResult = ProviderResult<std::monostate>;

} // namespace velnora
