#include "app/settings/ConnectionTest.h"

#include "config/ConfigurationError.h"
#include "llm/LLMClient.h"

#include <QPointer>
#include <QTimer>

namespace velnora {

namespace {

constexpr int deadlineMilliseconds = 30000;
const QString testSystemPrompt = QStringLiteral("这是一次连接测试，请只回复一个词。");
const QString testQuestion = QStringLiteral("你好");

} // namespace

ConnectionTest::ConnectionTest(AddressPolicy addressPolicy, QObject* parent)
    : QObject(parent), m_client(std::make_shared<LLMClient>(std::move(addressPolicy))),
      m_deadline(new QTimer(this))
{
    m_deadline->setSingleShot(true);
    m_deadline->setInterval(deadlineMilliseconds);
    connect(m_deadline, &QTimer::timeout, this, [this] {
        ++m_generation; // the cancelled stream's completion is stale now
        m_client->cancel();
        m_running = false;
        Q_EMIT finished(ProviderDiagnosis{timeoutMessage(), std::nullopt, std::nullopt}, timeoutMessage());
    });
}

ConnectionTest::~ConnectionTest()
{
    ++m_generation;
    m_client->cancel();
}

QString ConnectionTest::successMessage(const QString& answer)
{
    // One line of the answer, short enough for a status line.
    QString line = answer.simplified();
    constexpr qsizetype limit = 30;
    if (line.size() > limit) {
        line = line.left(limit) + u'…';
    }
    return QStringLiteral("连接成功，模型回复：“") + line + QStringLiteral("”");
}

QString ConnectionTest::timeoutMessage()
{
    return QStringLiteral("测试请求 30 秒内没有完成，请检查网络后重试。");
}

void ConnectionTest::start(const ResolvedProviderConfiguration& configuration)
{
    const int generation = ++m_generation;
    m_answer.clear();
    m_running = true;
    QPointer<ConnectionTest> self(this);
    try {
        m_client->stream(
            configuration, testSystemPrompt, {ConversationMessage::user(testQuestion)},
            [self, generation](const QString& delta) {
                if (self && generation == self->m_generation) {
                    self->m_answer += delta;
                }
            },
            [self, generation](const StreamResult& result) {
                if (self && generation == self->m_generation) {
                    self->finish(result.ok()
                                     ? std::nullopt
                                     : std::optional(ProviderDiagnostics::diagnose(result.failure())));
                }
            });
        if (m_running) {
            m_deadline->start();
        }
    } catch (const ConfigurationError& error) {
        finish(ProviderDiagnostics::diagnose(error));
    } catch (const LLMClientError& error) {
        finish(ProviderDiagnostics::diagnose(error));
    }
}

void ConnectionTest::finish(const std::optional<ProviderDiagnosis>& failure)
{
    m_deadline->stop();
    m_running = false;
    Q_EMIT finished(failure, failure ? failure->message() : successMessage(m_answer));
}

} // namespace velnora
