#pragma once

#include "config/ResolvedProviderConfiguration.h"

#include <QStringList>

namespace velnora::AppEdition {

// This build is the mainland-China edition.
inline constexpr const char* identifierPrefix = "com.tarnwick.velnora.domestic";

// Model families this edition accepts for a provider; empty for an unknown provider.
QStringList allowedModelPrefixes(const QString& providerID);
bool modelAllowed(const QString& model, const QString& providerID);
// Throws ConfigurationError(editionRestricted) unless the configuration uses the official
// base URL of a built-in service and a model of its families.
void validate(const ResolvedProviderConfiguration& configuration);

} // namespace velnora::AppEdition
