#pragma once

#include "capture/SelectionResult.h"
#include "config/ConfigurationStore.h"
#include "config/KeychainStore.h"
#include "flow/ExplanationCard.h"
#include "flow/ExplanationConversation.h"
#include "llm/LLMClient.h"

#include <QObject>
#include <functional>
#include <optional>

namespace velnora {

// Runs one API-mode explanation session: from the captured text to the streamed answer in the card,
// with follow-ups, stop, retry and one fallback per selection to the last configuration that worked.
// Lives on the main thread.
class ExplanationCoordinator : public QObject
{
    Q_OBJECT
public:
    // How configurations are resolved. The defaults read the settings and the key store; tests wrap
    // them to point the resolved configuration at a loopback server.
    struct Resolution
    {
        // The configuration of a new session; throws KeychainError or ConfigurationError.
        std::function<ResolvedProviderConfiguration()> session;
        // A known-good record made whole again with its provider's current key; none when it cannot be.
        std::function<std::optional<ResolvedProviderConfiguration>(const KnownGoodProvider&)> knownGood;
    };

    ExplanationCoordinator(ConfigurationStore& configuration, KeychainStore& keychain, LLMClient& client,
                           ExplanationCard& card, QObject* parent = nullptr);
    ~ExplanationCoordinator() override;

    Resolution& resolution() { return m_resolution; }
    Resolution defaultResolution();

    // Starts a session, or adds the selection to the running one. Throws KeychainError or
    // ConfigurationError when a new session cannot be configured; nothing changes then.
    void explain(const SelectionResult& selection);
    void stop();
    void reset();
    // Opens the card with a sample answer that uses every Markdown construct the card renders.
    void showInterfacePreview();
    static QString previewAnswer();

    bool isGenerating() const { return m_isGenerating; }
    const ExplanationConversation& conversation() const { return m_conversation; }
    const std::optional<ResolvedProviderConfiguration>& provider() const { return m_provider; }
    bool didFallBack() const { return m_didFallBack; }

    static QString fallbackNotice(const ProviderDiagnosis& diagnosis, const QString& fallbackModel);

Q_SIGNALS:
    // The user pressed "去设置" on an error: open the settings window on that field.
    void fixConfigurationRequested(ProviderField field);

private:
    void followUp(const QString& question);
    void retry();
    void startStreaming(bool isFollowUp);
    void complete(const StreamResult& result, bool isFollowUp);
    void fail(const ProviderFailure& failure, bool isFollowUp);
    bool tryFallback(const ProviderDiagnosis& diagnosis, bool isFollowUp);
    // Before a retry or follow-up: settings saved since the session began (a fixed key, say) replace its
    // configuration. False when they no longer resolve; the card shows why.
    bool adoptChangedSettings(bool isFollowUp);

    ConfigurationStore& m_configuration;
    KeychainStore& m_keychain;
    LLMClient& m_client;
    ExplanationCard& m_card;
    Resolution m_resolution;

    std::optional<ResolvedProviderConfiguration> m_provider;
    // What the saved settings resolved to when the session began or last changed.
    std::optional<ResolvedProviderConfiguration> m_sessionResolution;
    ExplanationConversation m_conversation;
    QString m_currentResponse;
    bool m_isGenerating = false;
    bool m_didFallBack = false;
    bool m_statusShown = false; // the running answer's first piece set the status
    // Identifies the running stream, so a completion of a stream that was replaced is ignored.
    quint64 m_streamSerial = 0;
};

} // namespace velnora
