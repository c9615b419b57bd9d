#include "config/AppEdition.h"

#include "config/ConfigurationError.h"

#include <QUrl>

namespace velnora::AppEdition {

QStringList allowedModelPrefixes(const QString& providerID)
{
    static const QList<std::pair<QString, QStringList>> table{
        {"doubao", {"doubao-"}},
        {"deepseek", {"deepseek-"}},
        {"qwen", {"qwen"}},
        {"kimi", {"kimi-", "moonshot-"}},
        {"glm", {"glm-"}},
        {"hunyuan", {"hy4-", "hunyuan-"}},
        {"ernie", {"ernie-"}},
    };
    for (const auto& [id, prefixes] : table) {
        if (id == providerID) {
            return prefixes;
        }
    }
    return {};
}

bool modelAllowed(const QString& model, const QString& providerID)
{
    const QString lowered = model.toLower();
    for (const QString& prefix : allowedModelPrefixes(providerID)) {
        if (lowered.startsWith(prefix)) {
            return true;
        }
    }
    return false;
}

void validate(const ResolvedProviderConfiguration& configuration)
{
    const auto refuse = [] { throw ConfigurationError(ConfigurationError::Kind::editionRestricted); };

    const ProviderDefinition* definition = ProviderDefinition::find(configuration.definition.id);
    if (!definition) {
        refuse();
    }
    QString base = configuration.baseURL;
    while (base.startsWith(u'/')) {
        base.remove(0, 1);
    }
    while (base.endsWith(u'/')) {
        base.chop(1);
    }
    if (base != definition->defaultBaseURL) {
        refuse();
    }
    const QUrl url(configuration.baseURL);
    if (!url.userInfo().isEmpty() || url.hasQuery() || url.hasFragment()) {
        refuse();
    }
    if (!modelAllowed(configuration.model, definition->id)) {
        refuse();
    }
}

} // namespace velnora::AppEdition
