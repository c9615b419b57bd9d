#include "app/ApiStreamSelfTest.h"

#include "base/ModeResult.h"
#include "config/ConfigurationError.h"
#include "config/ConfigurationStore.h"
#include "config/KeychainStore.h"
#include "config/PromptLibrary.h"
#include "llm/LLMClient.h"
#include "llm/ProviderDiagnostics.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QHostAddress>
#include <cstdio>
#include <memory>

namespace velnora::ApiStreamSelfTest {

namespace {

void printText(const QString& text)
{
    const QByteArray bytes = text.toUtf8();
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stdout);
    std::fflush(stdout);
}

// A stand-in for the protocols no built-in service speaks.
ProviderDefinition standInDefinition(ProviderWireProtocol protocol)
{
    ProviderDefinition definition;
    definition.id = QStringLiteral("self-test");
    definition.title = QStringLiteral("接口自检");
    definition.iconName = QStringLiteral("self-test");
    definition.menuGroup = ProviderMenuGroup::custom;
    definition.wireProtocol = protocol;
    definition.defaultModel = protocol == ProviderWireProtocol::geminiGenerateContent
                                  ? QStringLiteral("gemini-2.5-flash")
                                  : QStringLiteral("claude-haiku-4-5");
    return definition;
}

std::optional<QString> storedKey(KeychainStore& keychain, const QString& providerID)
{
    if (!keychain.hasAPIKey(providerID)) {
        return std::nullopt;
    }
    try {
        const QString key = keychain.apiKey(providerID).value_or(QString()).trimmed();
        if (!key.isEmpty()) {
            return key;
        }
    } catch (const KeychainError&) {
        // A locked or unreachable secret store: the check still runs, with the placeholder.
    }
    return std::nullopt;
}

void printNote(const QString& text)
{
    const QByteArray bytes = (QString::fromLatin1(modeName) + QStringLiteral(": ") + text + u'\n').toUtf8();
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stderr);
}

// The provider of that protocol whose identity (and model) the request takes: the one whose official
// address was typed, else the configured API provider when it speaks the protocol, else the first
// built-in of that protocol. A stored key goes only to its own service's official host.
ResolvedProviderConfiguration configurationFor(const QUrl& url, ProviderWireProtocol protocol)
{
    ConfigurationStore settings;

    QList<ProviderDefinition> candidates;
    for (const ProviderDefinition& definition : ProviderDefinition::builtIn()) {
        if (definition.wireProtocol == protocol && isOfficialAddress(definition, url)) {
            candidates.append(definition);
        }
    }
    if (const ProviderDefinition* configured = ProviderDefinition::find(settings.apiProviderID());
        configured && configured->wireProtocol == protocol && !candidates.contains(*configured)) {
        candidates.append(*configured);
    }
    for (const ProviderDefinition& definition : ProviderDefinition::builtIn()) {
        if (definition.wireProtocol == protocol && !candidates.contains(definition)) {
            candidates.append(definition);
        }
    }

    ResolvedProviderConfiguration configuration;
    configuration.baseURL = url.toString();
    configuration.apiKey = QString::fromLatin1(placeholderKey);
    configuration.definition = candidates.isEmpty() ? standInDefinition(protocol) : candidates.first();
    std::optional<QString> key;
    if (isOfficialAddress(configuration.definition, url)) {
        KeychainStore keychain;
        key = storedKey(keychain, configuration.definition.id);
    }
    if (key) {
        configuration.apiKey = *key;
        printNote(QStringLiteral("使用已保存的 %1 API Key（%2 是它的官方地址）")
                      .arg(configuration.definition.title, url.host()));
    } else {
        printNote(QStringLiteral("使用占位 Key “%1”：已保存的 Key 只发往所属服务的官方地址")
                      .arg(QString::fromLatin1(placeholderKey)));
    }
    configuration.model = configuration.definition.defaultModel;
    if (const std::optional<ProviderOverride> override =
            settings.providerOverride(configuration.definition.id);
        override && !override->model.trimmed().isEmpty()) {
        configuration.model = override->model.trimmed();
    }
    return configuration;
}

} // namespace

QString sampleText()
{
    return QStringLiteral("边际效用递减：连续消费同一种商品时，每多一份带来的满足感会越来越少。");
}

QString sampleMessage()
{
    return depthInstruction(ExplanationDepth::fast) + QStringLiteral("\n\n<待解释材料>\n") + sampleText() +
           QStringLiteral("\n</待解释材料>");
}

ProviderWireProtocol protocolArgument(const ProcessArguments& arguments)
{
    const QStringList& list = arguments.list();
    const qsizetype index = list.indexOf(QString::fromLatin1(flag));
    if (index >= 0 && index + 2 < list.size()) {
        if (const std::optional<ProviderWireProtocol> protocol =
                fromRawValue<ProviderWireProtocol>(list.at(index + 2))) {
            return *protocol;
        }
    }
    return ProviderWireProtocol::openAIChat;
}

bool isOfficialAddress(const ProviderDefinition& definition, const QUrl& url)
{
    const QUrl official(definition.defaultBaseURL);
    return url.scheme().compare(QStringLiteral("https"), Qt::CaseInsensitive) == 0 && !url.host().isEmpty() &&
           official.host().compare(url.host(), Qt::CaseInsensitive) == 0 &&
           url.port(443) == official.port(443);
}

bool isLoopbackHost(const QString& host)
{
    if (host.compare(QStringLiteral("localhost"), Qt::CaseInsensitive) == 0) {
        return true;
    }
    QHostAddress address;
    return address.setAddress(host) && address.isLoopback();
}

void checkDiagnosticAddress(const ResolvedProviderConfiguration& configuration)
{
    const QUrl url(configuration.baseURL, QUrl::StrictMode);
    const QString scheme = url.scheme().toLower();
    const bool secure = scheme == u"https";
    const bool loopbackPlain = scheme == u"http" && isLoopbackHost(url.host());
    if (!url.isValid() || url.host().isEmpty() || !url.userInfo().isEmpty() || !(secure || loopbackPlain)) {
        throw ConfigurationError(ConfigurationError::Kind::invalidBaseURL);
    }
}

int run(const ProcessArguments& arguments)
{
    std::unique_ptr<QCoreApplication> application;
    if (!QCoreApplication::instance()) {
        application = std::make_unique<QCoreApplication>(arguments.argc(), arguments.argv());
    }
    const QString mode = QString::fromLatin1(modeName);
    const QString address = arguments.valueAfter(QString::fromLatin1(flag)).value_or(QString()).trimmed();
    const ProviderWireProtocol protocol = protocolArgument(arguments);
    const ResolvedProviderConfiguration configuration = configurationFor(QUrl(address), protocol);

    LLMClient client(&checkDiagnosticAddress);
    QEventLoop loop;
    int status = 1;
    bool printedText = false;
    bool endsWithNewline = true;
    std::optional<StreamResult> outcome;
    try {
        client.stream(
            configuration, PromptLibrary::defaultSystemPrompt(), {ConversationMessage::user(sampleMessage())},
            [&](const QString& text) {
                printText(text);
                printedText = true;
                endsWithNewline = text.endsWith(u'\n');
            },
            [&](const StreamResult& result) {
                outcome = result;
                loop.quit();
            });
    } catch (const ConfigurationError& error) {
        outcome = StreamResult::failed(error);
    } catch (const LLMClientError& error) {
        outcome = StreamResult::failed(error);
    }
    if (!outcome) {
        loop.exec();
    }
    if (printedText && !endsWithNewline) {
        printText(QStringLiteral("\n"));
    }
    if (outcome && outcome->ok()) {
        status = ModeResult::report(mode, QString());
    } else {
        const QString reason = outcome ? ProviderDiagnostics::diagnose(outcome->failure()).message()
                                       : QStringLiteral("没有结果");
        status = ModeResult::report(mode, reason);
    }
    return status;
}

} // namespace velnora::ApiStreamSelfTest
