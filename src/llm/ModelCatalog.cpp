#include "llm/ModelCatalog.h"

#include "config/AppEdition.h"
#include "config/ConfigurationError.h"
#include "llm/LLMClient.h"
#include "llm/NetworkSupport.h"

#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QPointer>
#include <QSet>
#include <QTimer>
#include <algorithm>
#include <memory>

namespace velnora::ModelCatalog {

namespace {

template <typename Fn> void onMainThread(Fn&& fn)
{
    QMetaObject::invokeMethod(QCoreApplication::instance(), std::forward<Fn>(fn), Qt::QueuedConnection);
}

void complete(const Completion& completion, ModelListResult result)
{
    onMainThread([completion, result = std::move(result)] {
        if (completion) {
            completion(result);
        }
    });
}

// One fetch in flight: the reply, its inactivity timer and the body read so far.
struct Fetch
{
    QPointer<QNetworkReply> reply;
    QTimer timer;
    QByteArray body;
    bool timedOut = false;
    bool done = false;
};

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
    for (QChar c : provider.apiKey) {
        if (c.unicode() < 0x20 || c.unicode() > 0x7E) {
            return std::nullopt; // cannot stand in a header
        }
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
    if (!session) {
        session = defaultSession();
    }
    auto state = std::make_shared<Fetch>();
    state->reply = NetworkSupport::send(*session, request);
    QNetworkReply* reply = state->reply;
    const std::chrono::milliseconds timeout = request.inactivityTimeout;

    auto finish = [state, completion](ModelListResult result) {
        if (state->done) {
            return;
        }
        state->done = true;
        state->timer.stop();
        state->body = QByteArray();
        if (state->reply) {
            state->reply->disconnect();
            if (state->reply->isRunning()) {
                state->reply->abort();
            }
            state->reply->deleteLater();
        }
        complete(completion, std::move(result));
    };

    state->timer.setSingleShot(true);
    QObject::connect(&state->timer, &QTimer::timeout, reply, [state] {
        if (!state->done && state->reply) {
            state->timedOut = true;
            state->reply->abort();
        }
    });
    const auto activity = [state, timeout] {
        if (!state->done && timeout.count() > 0) {
            state->timer.start(timeout);
        }
    };
    QObject::connect(reply, &QNetworkReply::metaDataChanged, reply, activity);
    QObject::connect(reply, &QNetworkReply::readyRead, reply, [state, activity, finish] {
        activity();
        const QByteArray bytes = state->reply->readAll();
        if (bytes.size() > NetworkSupport::bodyLimit - state->body.size()) {
            finish(ModelListResult::failed(NetworkSupport::bodyTooLarge(NetworkSupport::bodyLimit)));
            return;
        }
        state->body.append(bytes);
    });
    QObject::connect(reply, &QNetworkReply::finished, reply, [state, finish, providerID, timeout] {
        if (state->done) {
            return;
        }
        QNetworkReply* reply = state->reply;
        const QByteArray rest = reply->isOpen() ? reply->readAll() : QByteArray();
        if (rest.size() > NetworkSupport::bodyLimit - state->body.size()) {
            finish(ModelListResult::failed(NetworkSupport::bodyTooLarge(NetworkSupport::bodyLimit)));
            return;
        }
        state->body.append(rest);
        if (state->timedOut) {
            finish(ModelListResult::failed(NetworkSupport::inactivityTimeout(timeout)));
            return;
        }
        const std::optional<int> status = NetworkSupport::httpStatus(*reply);
        if (NetworkSupport::isTransportFailure(reply->error(), status)) {
            finish(ModelListResult::failed(NetworkSupport::transportFailure(*reply)));
            return;
        }
        if (std::optional<NetworkError> truncated =
                NetworkSupport::truncatedBody(*reply, state->body.size())) {
            finish(ModelListResult::failed(*truncated));
            return;
        }
        const int code = status.value_or(0);
        if (code < 200 || code > 299) {
            QString text;
            if (state->body.isValidUtf8()) {
                text = QString::fromUtf8(state->body);
            }
            finish(ModelListResult::failed(LLMClientError::http(code, text)));
            return;
        }
        QStringList allowed;
        for (const QString& id : parse(state->body)) {
            if (AppEdition::modelAllowed(id, providerID)) {
                allowed.append(id);
            }
        }
        finish(ModelListResult::success(allowed));
    });
    if (timeout.count() > 0) {
        state->timer.start(timeout);
    }
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
