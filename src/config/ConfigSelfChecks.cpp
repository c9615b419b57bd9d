#include "config/ConfigSelfChecks.h"

#include "config/AppEdition.h"
#include "config/ConfigurationError.h"
#include "config/ConfigurationStore.h"
#include "config/PromptLibrary.h"

#include <QTemporaryDir>

namespace velnora::ConfigSelfChecks {

namespace {

bool passes(const QString& id, const QString& baseURL, const QString& model)
{
    try {
        AppEdition::validate({ProviderDefinition::definition(id), baseURL, model, QStringLiteral("key")});
        return true;
    } catch (const ConfigurationError&) {
        return false;
    }
}

} // namespace

QString editionFailure()
{
    for (const ProviderDefinition& definition : ProviderDefinition::builtIn()) {
        if (!passes(definition.id, definition.defaultBaseURL, definition.defaultModel)) {
            return definition.id + QStringLiteral(" default configuration refused");
        }
        if (!passes(definition.id, definition.defaultBaseURL + QStringLiteral("//"), definition.defaultModel)) {
            return definition.id + QStringLiteral(" base URL with trailing slash refused");
        }
        QString insecure = definition.defaultBaseURL;
        insecure.replace(QStringLiteral("https://"), QStringLiteral("http://"));
        if (passes(definition.id, insecure, definition.defaultModel)) {
            return definition.id + QStringLiteral(" insecure base URL accepted");
        }
        if (passes(definition.id, definition.defaultBaseURL + QStringLiteral("?x=1"), definition.defaultModel)) {
            return definition.id + QStringLiteral(" base URL with query accepted");
        }
        if (!definition.defaultBaseURL.startsWith(QStringLiteral("https://"))) {
            return definition.id + QStringLiteral(" official base URL is not https");
        }
    }
    if (!AppEdition::modelAllowed(QStringLiteral("Kimi-K3"), QStringLiteral("kimi")) ||
        !AppEdition::modelAllowed(QStringLiteral("moonshot-v1-8k"), QStringLiteral("kimi")) ||
        !AppEdition::modelAllowed(QStringLiteral("qwen-max"), QStringLiteral("qwen"))) {
        return QStringLiteral("model family refused");
    }
    if (AppEdition::modelAllowed(QStringLiteral("glm-5.2"), QStringLiteral("deepseek")) ||
        AppEdition::modelAllowed(QStringLiteral("gpt-4o"), QStringLiteral("openai"))) {
        return QStringLiteral("foreign model accepted");
    }
    return {};
}

QString settingsFailure()
{
    QTemporaryDir directory;
    if (!directory.isValid()) {
        return QStringLiteral("cannot create a temporary settings folder");
    }
    ConfigurationStore store(directory.filePath(QStringLiteral("settings.conf")));
    if (store.executionMode() != ExecutionMode::browser || store.apiProviderID() != u"doubao" ||
        store.explanationDepth() != ExplanationDepth::balanced ||
        store.systemPrompt() != PromptLibrary::defaultSystemPrompt()) {
        return QStringLiteral("defaults are wrong");
    }
    store.setApiProviderID(QStringLiteral("kimi"));
    store.saveProviderOverride(QStringLiteral("kimi"), QString(), QStringLiteral("moonshot-v1-8k"));
    try {
        const ResolvedProviderConfiguration resolved = store.resolvedProvider(QStringLiteral(" key \n"));
        if (resolved.baseURL != ProviderDefinition::definition(QStringLiteral("kimi")).defaultBaseURL ||
            resolved.model != u"moonshot-v1-8k" || resolved.apiKey != u"key") {
            return QStringLiteral("override resolved wrongly");
        }
    } catch (const ConfigurationError& error) {
        return QStringLiteral("resolution failed: ") + error.description();
    }
    store.saveProviderOverride(QStringLiteral("kimi"), ProviderDefinition::definition(QStringLiteral("kimi")).defaultBaseURL,
                               ProviderDefinition::definition(QStringLiteral("kimi")).defaultModel);
    if (store.providerOverride(QStringLiteral("kimi"))) {
        return QStringLiteral("override equal to the defaults was kept");
    }
    const KnownGoodProvider record{QStringLiteral("kimi"), QStringLiteral("https://api.moonshot.cn/v1"),
                                   QStringLiteral("kimi-k3")};
    store.setLastKnownGoodProvider(record);
    if (store.lastKnownGoodProvider() != record) {
        return QStringLiteral("known-good record lost");
    }
    store.setSystemPrompt(QStringLiteral("  \n "));
    if (store.systemPrompt() != PromptLibrary::defaultSystemPrompt()) {
        return QStringLiteral("blank prompt not replaced by the default");
    }
    return {};
}

} // namespace velnora::ConfigSelfChecks
