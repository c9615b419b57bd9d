#pragma once

#include "base/ProcessArguments.h"
#include "config/ResolvedProviderConfiguration.h"

#include <QUrl>
#include <optional>

namespace velnora::ApiStreamSelfTest {

inline constexpr const char* flag = "--api-stream-self-test";
inline constexpr const char* modeName = "api-stream-self-test";
// Sent unless the URL is the official address of a service whose key is stored.
inline constexpr const char* placeholderKey = "velnora-self-test-key";

// The fixed material explained by the check.
QString sampleText();
// The user message: the fast depth instruction and the material, as a first message is built.
QString sampleMessage();

// The protocol named after the URL; openAIChat when it is missing or not a protocol's raw value.
ProviderWireProtocol protocolArgument(const ProcessArguments& arguments);
// Throws ConfigurationError(invalidBaseURL) unless the URL is https, or http to a loopback host.
void checkDiagnosticAddress(const ResolvedProviderConfiguration& configuration);
bool isLoopbackHost(const QString& host);
// The URL is https on the host (and port) of the service's own default address.
bool isOfficialAddress(const ProviderDefinition& definition, const QUrl& url);

// The "--api-stream-self-test URL [PROTOCOL]" mode: streams one short explanation from URL, printing the
// answer as it arrives, then "api-stream-self-test: ok" (exit 0) or the diagnosis on one line (exit 1).
int run(const ProcessArguments& arguments);

} // namespace velnora::ApiStreamSelfTest
