#pragma once

#include "config/ResolvedProviderConfiguration.h"
#include "llm/ProviderDiagnostics.h"

#include <QObject>
#include <memory>
#include <optional>

class QTimer;

namespace velnora {

class LLMClient;

// The one-word test request of the settings window, ended by its answer, its failure or 30 seconds.
class ConnectionTest : public QObject
{
    Q_OBJECT
public:
    using AddressPolicy = std::function<void(const ResolvedProviderConfiguration&)>;

    explicit ConnectionTest(AddressPolicy addressPolicy, QObject* parent = nullptr);
    ~ConnectionTest() override;

    void start(const ResolvedProviderConfiguration& configuration);
    bool isRunning() const { return m_running; }

    // The sentence for the user when the test ended.
    static QString successMessage(const QString& answer);
    static QString timeoutMessage();

Q_SIGNALS:
    // No failure means the answer arrived; the message is the sentence for the user.
    void finished(const std::optional<ProviderDiagnosis>& failure, const QString& message);

private:
    void finish(const std::optional<ProviderDiagnosis>& failure);

    std::shared_ptr<LLMClient> m_client;
    QTimer* m_deadline;
    bool m_running = false;
    int m_generation = 0;
    QString m_answer;
};

} // namespace velnora
