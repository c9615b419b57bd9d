#include "llm/ModelCatalog.h"

#include "config/AppEdition.h"
#include "config/ConfigurationError.h"
#include "llm/ApiKeyCheck.h"
#include "llm/LLMClient.h"
#include "llm/NetworkFetch.h"
#include "llm/NetworkSupport.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QPointer>
#include <QSet>
#include <algorithm>

namespace velnora::ModelCatalog {

namespace {

void complete(const Completion& completion, ModelListResult result)
{
    NetworkSupport::onMainThread([completion, result = std::move(result)] {
        if (completion) {
            completion(result);
        }
    });
}

} // namespace

const QStringList& nonChatMarkers()
{
    static const QStringList markers{
        QStringLiteral("embedding"), QStringLiteral("seedream"), QStringLiteral("seedance"),
        QStringLiteral("seed3d"),    QStringLiteral("hyper3d"),  QStringLiteral("hitem3d"),
        QStringLiteral("rerank"),    QStringLiteral("whisper"),  QStringLiteral("-tts"),
        QStringLiteral("-asr"),      QStringLiteral("-ocr"),     QStringLiteral("moderation"),
        QStringLiteral("image"),     QStringLiteral("video"),
    };
    return markers;
}

std::optional<PreparedRequest> request(const ResolvedProviderConfiguration& provider)
{
    return request(provider, &AppEdition::validate);
}

std::optional<PreparedRequest> request(const ResolvedProviderConfiguration& provider,
                                       const AddressPolicy& policy)
{
    try {
        if (policy) {
            policy(provider);
        }
    } catch (const ConfigurationError&) {
        return std::nullopt;
    } catch (const LLMClientError&) {
        return std::nullopt;
    }
    if (ApiKeyCheck::problem(provider.apiKey)) {
        return std::nullopt;
    }
    const QUrl url = LLMClient::endpoint(QUrl(provider.baseURL), QStringLiteral("models"));
    if (!url.isValid()) {
        return std::nullopt;
    }
    PreparedRequest prepared = NetworkSupport::prepare("GET", url, fetchTimeout);
    const QByteArray key = provider.apiKey.toLatin1();
    switch (provider.wireProtocol()) {
    case ProviderWireProtocol::openAIResponses:
    case ProviderWireProtocol::openAIChat:
        prepared.request.setRawHeader("Authorization", "Bearer " + key);
        break;
    case ProviderWireProtocol::anthropicMessages:
        prepared.request.setRawHeader("x-api-key", key);
        prepared.request.setRawHeader("anthropic-version", "2023-06-01");
        break;
    case ProviderWireProtocol::geminiGenerateContent:
        prepared.request.setRawHeader("x-goog-api-key", key);
        break;
    }
    return prepared;
}

QNetworkAccessManager* defaultSession()
{
    static QPointer<QNetworkAccessManager> session;
    if (!session) {
        // Owned by the application object, so it goes away with it.
        session = NetworkSupport::createEphemeralManager(QCoreApplication::instance());
    }
    return session;
}

void fetch(const ResolvedProviderConfiguration& provider, Completion completion,
           QNetworkAccessManager* session)
{
    fetch(provider, std::move(completion), &AppEdition::validate, session);
}

void fetch(const ResolvedProviderConfiguration& provider, Completion completion, const AddressPolicy& policy,
           QNetworkAccessManager* session)
{
    if (const std::optional<QString> problem = ApiKeyCheck::problem(provider.apiKey)) {
        complete(completion, ModelListResult::failed(LLMClientError::invalidAPIKey(*problem)));
        return;
    }
    const std::optional<PreparedRequest> prepared = request(provider, policy);
    if (!prepared) {
        complete(completion, ModelListResult::failed(LLMClientError::invalidRequest()));
        return;
    }
    fetch(*prepared, provider.definition.id, std::move(completion), session);
}

void fetch(const PreparedRequest& request, const QString& providerID, Completion completion,
           QNetworkAccessManager* session)
{
    NetworkFetch::start(
        *(session ? session : defaultSession()), request, {},
        [providerID, completion](const NetworkFetch::Outcome& outcome) {
            if (!outcome.ok()) {
                complete(completion, ModelListResult::failed(outcome.failure()));
                return;
            }
            const NetworkFetch::Response& response = outcome.value();
            const int code = response.status.value_or(0);
            if (code < 200 || code > 299) {
                const QString text =
                    response.body.isValidUtf8() ? QString::fromUtf8(response.body) : QString();
                complete(completion, ModelListResult::failed(LLMClientError::http(code, text)));
                return;
            }
            QStringList allowed;
            for (const QString& id : parse(response.body)) {
                if (AppEdition::modelAllowed(id, providerID)) {
                    allowed.append(id);
                }
            }
            complete(completion, ModelListResult::success(allowed));
        });
}

QStringList parse(const QByteArray& data)
{
    const QJsonDocument document = QJsonDocument::fromJson(data);
    if (!document.isObject()) {
        return {};
    }
    const QJsonObject object = document.object();
    const QJsonValue list = object.value(QLatin1StringView("data"));
    if (list.isArray()) {
        QStringList ids;
        for (const QJsonValue& entry : list.toArray()) {
            if (!entry.isObject()) {
                continue;
            }
            const QJsonObject model = entry.toObject();
            const QJsonValue status = model.value(QLatin1StringView("status"));
            if (status.isString() && status.toString().toLower() == u"shutdown") {
                continue;
            }
            const QJsonValue id = model.value(QLatin1StringView("id"));
            if (id.isString()) {
                ids.append(id.toString());
            }
        }
        return dedupe(ids);
    }
    const QJsonValue models = object.value(QLatin1StringView("models"));
    if (models.isArray()) {
        QStringList ids;
        for (const QJsonValue& entry : models.toArray()) {
            if (!entry.isObject()) {
                continue;
            }
            const QJsonValue name = entry.toObject().value(QLatin1StringView("name"));
            if (name.isString()) {
                QString id = name.toString();
                if (id.startsWith(u"models/")) {
                    id.remove(0, 7);
                }
                ids.append(id);
            }
        }
        return dedupe(ids);
    }
    return {};
}

QStringList dedupe(const QStringList& ids)
{
    QStringList unique;
    QSet<QString> seen;
    for (const QString& id : ids) {
        if (id.isEmpty() || seen.contains(id)) {
            continue;
        }
        seen.insert(id);
        unique.append(id);
    }
    std::sort(unique.begin(), unique.end());
    QStringList chat;
    for (const QString& id : unique) {
        const QString lowered = id.toLower();
        const bool nonChat = std::any_of(nonChatMarkers().begin(), nonChatMarkers().end(),
                                         [&](const QString& marker) { return lowered.contains(marker); });
        if (!nonChat) {
            chat.append(id);
        }
    }
    return chat.isEmpty() ? unique : chat;
}

QString emptyListSentence()
{
    return QStringLiteral("这家服务没有提供模型列表，请手动填写");
}

QString countSentence(qsizetype count, bool currentModelListed)
{
    return QString::number(count) + (currentModelListed ? QStringLiteral(" 个可用模型")
                                                        : QStringLiteral(" 个可用模型；当前填的不在其中"));
}

QString listSummary(const QStringList& models, const QString& currentModel)
{
    if (models.isEmpty()) {
        return emptyListSentence();
    }
    return countSentence(models.size(), models.contains(currentModel));
}

} // namespace velnora::ModelCatalog
