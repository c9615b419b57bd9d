#include "flow/ExplanationCoordinator.h"

#include <QPointer>

namespace velnora {

namespace {

const QString generatingStatus = QStringLiteral("生成中");
const QString fallbackStatus = QStringLiteral("已切换备用配置");

} // namespace

ExplanationCoordinator::ExplanationCoordinator(ConfigurationStore& configuration, KeychainStore& keychain,
                                               LLMClient& client, ExplanationCard& card, QObject* parent)
    : QObject(parent), m_configuration(configuration), m_keychain(keychain), m_client(client), m_card(card),
      m_resolution(defaultResolution())
{
    QPointer<ExplanationCoordinator> self(this);
    ExplanationCard::Callbacks callbacks;
    callbacks.onFollowUp = [self](const QString& question) {
        if (self) {
            self->followUp(question);
        }
    };
    callbacks.onStop = [self] {
        if (self) {
            self->stop();
        }
    };
    callbacks.onRetry = [self] {
        if (self) {
            self->retry();
        }
    };
    callbacks.onClose = [self] {
        if (self) {
            self->reset();
        }
    };
    callbacks.onFixConfiguration = [self](ProviderField field) {
        if (self) {
            Q_EMIT self->fixConfigurationRequested(field);
        }
    };
    m_card.setCallbacks(std::move(callbacks));
}

ExplanationCoordinator::~ExplanationCoordinator()
{
    if (m_isGenerating) {
        m_client.cancel();
    }
}

ExplanationCoordinator::Resolution ExplanationCoordinator::defaultResolution()
{
    Resolution resolution;
    resolution.session = [this] {
        const QString key = m_keychain.apiKey(m_configuration.apiProviderID()).value_or(QString());
        return m_configuration.resolvedProvider(key);
    };
    resolution.knownGood =
        [this](const KnownGoodProvider& record) -> std::optional<ResolvedProviderConfiguration> {
        const ProviderDefinition* definition = ProviderDefinition::find(record.providerID);
        if (!definition) {
            return std::nullopt;
        }
        std::optional<QString> key;
        try {
            key = m_keychain.apiKey(record.providerID);
        } catch (const KeychainError&) {
            return std::nullopt;
        }
        if (!key || key->trimmed().isEmpty()) {
            return std::nullopt;
        }
        return ResolvedProviderConfiguration{*definition, record.baseURL, record.model, key->trimmed()};
    };
    return resolution;
}

void ExplanationCoordinator::explain(const SelectionResult& selection)
{
    const ExplanationDepth depth = m_configuration.explanationDepth();
    const QString instruction = depthInstruction(depth);
    std::optional<QRect> anchor;
    if (selection.anchorRect) {
        anchor = selection.anchorRect->toAlignedRect();
    }

    if (m_provider && !m_conversation.isEmpty()) {
        if (m_isGenerating) {
            stop();
        }
        m_conversation.append(ConversationMessage::user(
            ExplanationConversation::furtherSelectionMessage(instruction, selection.text)));
        m_currentResponse.clear();
        m_didFallBack = false;
        m_card.continueSession(m_provider->definition, depth, anchor);
        startStreaming(true);
        return;
    }

    // Resolve first: a failure leaves the coordinator exactly as it was.
    ResolvedProviderConfiguration resolved = m_resolution.session();
    m_sessionResolution = resolved;
    m_provider = std::move(resolved);
    m_conversation = ExplanationConversation{};
    m_conversation.append(
        ConversationMessage::user(ExplanationConversation::firstMessage(instruction, selection.text)));
    m_currentResponse.clear();
    m_didFallBack = false;
    m_card.present(m_provider->definition, depth, anchor);
    startStreaming(false);
}

void ExplanationCoordinator::startStreaming(bool isFollowUp)
{
    if (!m_provider) {
        return;
    }
    m_isGenerating = true;
    m_card.beginResponse(isFollowUp);
    m_statusShown = false;

    const quint64 serial = ++m_streamSerial;
    QPointer<ExplanationCoordinator> self(this);
    auto onDelta = [self, serial](const QString& text) {
        if (!self || serial != self->m_streamSerial || !self->m_isGenerating) {
            return;
        }
        self->m_currentResponse += text;
        self->m_card.appendText(text);
        if (!self->m_statusShown) {
            self->m_statusShown = true;
            self->m_card.setStatus(generatingStatus, CardStatusTone::working);
        }
    };
    auto onComplete = [self, serial, isFollowUp](const StreamResult& result) {
        if (!self || serial != self->m_streamSerial) {
            return;
        }
        self->complete(result, isFollowUp);
    };
    try {
        m_client.stream(*m_provider, m_configuration.systemPrompt(), m_conversation.messages,
                        std::move(onDelta), std::move(onComplete));
    } catch (const ConfigurationError& error) {
        m_isGenerating = false;
        fail(error, isFollowUp);
    } catch (const LLMClientError& error) {
        m_isGenerating = false;
        fail(error, isFollowUp);
    }
}

void ExplanationCoordinator::complete(const StreamResult& result, bool isFollowUp)
{
    if (!m_isGenerating) {
        return; // stopped or reset: the card was already told
    }
    m_isGenerating = false;
    if (result.isCancelled()) {
        return;
    }
    if (!result.ok()) {
        fail(result.failure(), isFollowUp);
        return;
    }
    if (m_currentResponse.trimmed().isEmpty()) {
        fail(LLMClientError::emptyResponse(), isFollowUp);
        return;
    }
    m_conversation.append(ConversationMessage::assistant(m_currentResponse));
    if (!m_didFallBack && m_provider) {
        m_configuration.setLastKnownGoodProvider(
            KnownGoodProvider{m_provider->definition.id, m_provider->baseURL, m_provider->model});
    }
    m_card.finish();
}

void ExplanationCoordinator::fail(const ProviderFailure& failure, bool isFollowUp)
{
    const ProviderDiagnosis diagnosis = ProviderDiagnostics::diagnose(failure);
    if (!tryFallback(diagnosis, isFollowUp)) {
        m_card.showError(diagnosis);
    }
}

bool ExplanationCoordinator::tryFallback(const ProviderDiagnosis& diagnosis, bool isFollowUp)
{
    if (!m_provider || m_didFallBack || !diagnosis.field) {
        return false;
    }
    const std::optional<KnownGoodProvider> record = m_configuration.lastKnownGoodProvider();
    if (!record) {
        return false;
    }
    if (record->providerID == m_provider->definition.id && record->baseURL == m_provider->baseURL &&
        record->model == m_provider->model) {
        return false;
    }
    std::optional<ResolvedProviderConfiguration> fallback = m_resolution.knownGood(*record);
    if (!fallback) {
        return false;
    }
    m_provider = std::move(fallback);
    m_didFallBack = true;
    m_currentResponse.clear();
    m_card.showFallback(m_provider->definition, m_configuration.explanationDepth(), *diagnosis.field,
                        fallbackNotice(diagnosis, m_provider->model));
    m_card.setStatus(fallbackStatus, CardStatusTone::warning);
    startStreaming(isFollowUp);
    return true;
}

QString ExplanationCoordinator::fallbackNotice(const ProviderDiagnosis& diagnosis,
                                               const QString& fallbackModel)
{
    return QStringLiteral("⚠️ ") + diagnosis.message() +
           QStringLiteral("\n\n已临时改用上次可用的模型 `") + fallbackModel +
           QStringLiteral("` 继续解释。设置本身没有被改动。\n\n---\n\n");
}

bool ExplanationCoordinator::adoptChangedSettings(bool isFollowUp)
{
    std::optional<ResolvedProviderConfiguration> resolved;
    try {
        resolved = m_resolution.session();
    } catch (const KeychainError& error) {
        m_card.beginResponse(isFollowUp);
        fail(error, isFollowUp);
        return false;
    } catch (const ConfigurationError& error) {
        m_card.beginResponse(isFollowUp);
        fail(error, isFollowUp);
        return false;
    }
    // Unchanged settings keep the session as it is, a fallback included.
    if (resolved != m_sessionResolution) {
        m_sessionResolution = resolved;
        m_provider = std::move(resolved);
        m_didFallBack = false;
    }
    return true;
}

void ExplanationCoordinator::followUp(const QString& question)
{
    if (m_isGenerating || !m_provider) {
        return;
    }
    m_conversation.append(ConversationMessage::user(question));
    if (!adoptChangedSettings(true)) {
        return;
    }
    m_currentResponse.clear();
    startStreaming(true);
}

void ExplanationCoordinator::retry()
{
    if (m_isGenerating || !m_provider) {
        return;
    }
    m_currentResponse.clear();
    if (adoptChangedSettings(false)) {
        startStreaming(false);
    }
}

void ExplanationCoordinator::stop()
{
    if (!m_isGenerating) {
        return;
    }
    m_client.cancel();
    m_isGenerating = false;
    if (m_currentResponse.isEmpty()) {
        m_card.showStopped();
        return;
    }
    m_conversation.append(ConversationMessage::assistant(m_currentResponse));
    m_currentResponse.clear();
    m_card.finish();
}

void ExplanationCoordinator::reset()
{
    m_client.cancel();
    ++m_streamSerial;
    m_isGenerating = false;
    m_provider.reset();
    m_sessionResolution.reset();
    m_conversation = ExplanationConversation{};
    m_currentResponse.clear();
    m_didFallBack = false;
}

void ExplanationCoordinator::showInterfacePreview()
{
    m_card.present(ProviderDefinition::definition(QStringLiteral("deepseek")),
                   m_configuration.explanationDepth(), std::nullopt);
    m_card.beginResponse(false);
    m_card.appendText(previewAnswer());
    m_card.finish();
}

QString ExplanationCoordinator::previewAnswer()
{
    return QStringLiteral("## 一句话解释\n\n"
                          "**边际成本**是指每多生产一件产品，总成本额外增加的那一部分。\n\n"
                          "### 拆开来看\n\n"
                          "1. *总成本*：生产全部产品花掉的钱。\n"
                          "2. *边际*：只看“再多一件”带来的变化。\n"
                          "3. 当边际成本低于售价时，多生产通常更划算。\n\n"
                          "- 常见误区：把**平均成本**当成边际成本。\n"
                          "- 类比：第一张光盘要录制母版，之后每多压一张只要几毛钱。\n\n"
                          "> 经济学里的“边际”几乎都指“再多一个单位”。\n\n"
                          "计算时可以写成 `MC = ΔTC / ΔQ`：\n\n"
                          "```\n"
                          "边际成本 = 总成本的变化 ÷ 产量的变化\n"
                          "```\n\n"
                          "---\n\n"
                          "想继续了解，可以追问[规模经济](https://zh.wikipedia.org/wiki/规模经济)。");
}

} // namespace velnora
