#pragma once

#include "config/EnumRawValues.h"
#include "llm/ProviderFailure.h"

#include <optional>

namespace velnora {

enum class ProviderField { apiKey, model, baseURL };

template <>
struct EnumRawValues<ProviderField>
{
    static constexpr std::array cases{
        std::pair{ProviderField::apiKey, "apiKey"},
        std::pair{ProviderField::model, "model"},
        std::pair{ProviderField::baseURL, "baseURL"},
    };
};

// "API Key", "模型", "Base URL".
QString displayName(ProviderField field);

struct ProviderDiagnosis
{
    QString summary;                    // the sentence for the user
    std::optional<ProviderField> field; // the settings field to fix, when the user can fix it
    std::optional<QString> serverDetail; // the server's or system's own words, verbatim

    // Summary, the field to fix, and the server's text when it adds something.
    QString message() const;
    // Only configuration faults allow a retry with the last configuration that worked.
    bool allowsFallback() const { return field.has_value(); }

    friend bool operator==(const ProviderDiagnosis&, const ProviderDiagnosis&) = default;
};

namespace ProviderDiagnostics {

// Never fails: every failure gets a sentence.
ProviderDiagnosis diagnose(const ProviderFailure& failure);
// An HTTP status (none for an error event inside a successful stream) and the server's message.
ProviderDiagnosis diagnose(std::optional<int> status, const QString& message);

} // namespace ProviderDiagnostics
} // namespace velnora
