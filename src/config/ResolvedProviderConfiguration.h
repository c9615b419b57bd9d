#pragma once

#include "config/ProviderCatalog.h"

namespace velnora {

// Everything one API request needs.
struct ResolvedProviderConfiguration
{
    ProviderDefinition definition;
    QString baseURL;
    QString model;
    QString apiKey;

    ProviderWireProtocol wireProtocol() const { return definition.wireProtocol; }
    friend bool operator==(const ResolvedProviderConfiguration&, const ResolvedProviderConfiguration&) = default;
};

} // namespace velnora
