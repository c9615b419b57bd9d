#pragma once

#include "config/ResolvedProviderConfiguration.h"
#include "llm/PreparedRequest.h"
#include "llm/ProviderResult.h"

#include <QStringList>
#include <chrono>
#include <functional>
#include <optional>

class QNetworkAccessManager;

namespace velnora::ModelCatalog {

using AddressPolicy = std::function<void(const ResolvedProviderConfiguration&)>;
using ModelListResult = ProviderResult<QStringList>;
using Completion = std::function<void(const ModelListResult& result)>;

inline constexpr std::chrono::milliseconds fetchTimeout{15'000};

// Substrings (of the lower-cased id) of models that cannot chat: embeddings, images, video, speech …
const QStringList& nonChatMarkers();

// The GET request for the provider's model list, or none when the edition policy (or the given one)
// refuses the configuration. The key travels in a header, never in the URL.
std::optional<PreparedRequest> request(const ResolvedProviderConfiguration& provider);
std::optional<PreparedRequest> request(const ResolvedProviderConfiguration& provider,
                                       const AddressPolicy& policy);

// The ephemeral manager shared by every fetch: no cookies, cache or credentials, redirects refused.
QNetworkAccessManager* defaultSession();

// Fetches the chat models the key may use, sorted, limited to the provider's model families.
// completion is called once, on the main thread. When no request can be built it receives
// LLMClientError::invalidRequest.
void fetch(const ResolvedProviderConfiguration& provider, Completion completion,
           QNetworkAccessManager* session = nullptr);
void fetch(const ResolvedProviderConfiguration& provider, Completion completion, const AddressPolicy& policy,
           QNetworkAccessManager* session = nullptr);
// The same for a request built elsewhere (its timeout included).
void fetch(const PreparedRequest& request, const QString& providerID, Completion completion,
           QNetworkAccessManager* session = nullptr);

// Model ids of an OpenAI-style ({"data":[{"id"}]}) or Gemini-style ({"models":[{"name"}]}) list.
QStringList parse(const QByteArray& data);
// Without empty ids and repeats, sorted; non-chat models dropped unless nothing else is left.
QStringList dedupe(const QStringList& ids);

// What the settings window shows for a fetched list: "这家服务没有提供模型列表，请手动填写", or the count
// followed by " 个可用模型", or by " 个可用模型；当前填的不在其中" when currentModel is not listed.
QString listSummary(const QStringList& models, const QString& currentModel);
QString emptyListSentence();
QString countSentence(qsizetype count, bool currentModelListed);

} // namespace velnora::ModelCatalog
