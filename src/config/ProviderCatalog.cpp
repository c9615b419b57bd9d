#include "config/ProviderCatalog.h"

namespace velnora {

QString depthInstruction(ExplanationDepth depth)
{
    switch (depth) {
    case ExplanationDepth::fast:
        return QStringLiteral("优先快速回答。先用一句话说明核心含义，只补充理解所必需的信息。");
    case ExplanationDepth::balanced:
        return QStringLiteral("先用一句话说明核心含义，再根据材料难度补充关键词、逻辑和必要例子。");
    case ExplanationDepth::deep:
        return QStringLiteral("在通俗解释之外，深入拆解逻辑、背景、隐含前提、歧义和常见误区。");
    }
    return {};
}

QString depthTitle(ExplanationDepth depth)
{
    switch (depth) {
    case ExplanationDepth::fast:
        return QStringLiteral("快速");
    case ExplanationDepth::balanced:
        return QStringLiteral("均衡");
    case ExplanationDepth::deep:
        return QStringLiteral("深入");
    }
    return {};
}

QString browserProviderTitle(BrowserProvider provider)
{
    switch (provider) {
    case BrowserProvider::doubao:
        return QStringLiteral("豆包");
    case BrowserProvider::deepseek:
        return QStringLiteral("DeepSeek");
    case BrowserProvider::qwen:
        return QStringLiteral("千问");
    case BrowserProvider::kimi:
        return QStringLiteral("Kimi");
    case BrowserProvider::glm:
        return QStringLiteral("智谱清言（GLM）");
    case BrowserProvider::hunyuan:
        return QStringLiteral("腾讯元宝（混元）");
    case BrowserProvider::ernie:
        return QStringLiteral("文心一言（ERNIE）");
    }
    return {};
}

const QList<ProviderDefinition>& ProviderDefinition::builtIn()
{
    using P = ProviderWireProtocol;
    static const QList<ProviderDefinition> list{
        {"doubao", "豆包（火山方舟）", "doubao", ProviderMenuGroup::mainlandChina, P::openAIResponses,
         "https://ark.cn-beijing.volces.com/api/v3", "doubao-seed-2-0-lite-260215"},
        {"deepseek", "DeepSeek", "deepseek", ProviderMenuGroup::mainlandChina, P::openAIChat,
         "https://api.deepseek.com", "deepseek-v4-flash"},
        {"qwen", "千问 Qwen（阿里云百炼）", "qwen", ProviderMenuGroup::mainlandChina, P::openAIChat,
         "https://dashscope.aliyuncs.com/compatible-mode/v1", "qwen3.6-plus"},
        {"kimi", "Kimi（Moonshot AI）", "kimi", ProviderMenuGroup::mainlandChina, P::openAIChat,
         "https://api.moonshot.cn/v1", "kimi-k3"},
        {"glm", "GLM（智谱）", "glm", ProviderMenuGroup::mainlandChina, P::openAIChat,
         "https://open.bigmodel.cn/api/paas/v4", "glm-5.2"},
        {"hunyuan", "腾讯混元", "hunyuan", ProviderMenuGroup::mainlandChina, P::openAIChat,
         "https://tokenhub.tencentcloudmaas.com/v1", "hy4-preview"},
        {"ernie", "百度文心（ERNIE）", "ernie", ProviderMenuGroup::mainlandChina, P::openAIChat,
         "https://qianfan.baidubce.com/v2", "ernie-4.5-turbo-128k"},
    };
    return list;
}

const ProviderDefinition* ProviderDefinition::find(const QString& id)
{
    for (const auto& definition : builtIn()) {
        if (definition.id == id) {
            return &definition;
        }
    }
    return nullptr;
}

const ProviderDefinition& ProviderDefinition::definition(const QString& id)
{
    const ProviderDefinition* found = find(id);
    return found ? *found : builtIn().front();
}

QString ProviderDefinition::platformTitle(const QString& id)
{
    static const QList<std::pair<QString, QString>> titles{
        {"doubao", "火山方舟"},  {"deepseek", "DeepSeek API"}, {"qwen", "阿里云百炼"},
        {"kimi", "Moonshot AI"}, {"glm", "智谱"},              {"openai", "OpenAI API"},
        {"anthropic", "Anthropic"}, {"gemini", "Google AI"},   {"custom", "OpenAI 兼容"},
    };
    for (const auto& [key, title] : titles) {
        if (key == id) {
            return title;
        }
    }
    return QStringLiteral("API 直连");
}

QString ProviderDefinition::compactTitle(const QString& id, const QString& title)
{
    static const QList<std::pair<QString, QString>> titles{
        {"doubao", "豆包"}, {"qwen", "千问 Qwen"},    {"kimi", "Kimi"},         {"glm", "GLM"},
        {"anthropic", "Claude"}, {"gemini", "Gemini"}, {"custom", "自定义服务"},
    };
    for (const auto& [key, compact] : titles) {
        if (key == id) {
            return compact;
        }
    }
    return title;
}

QString ExplainerConstants::extensionIdentifier()
{
    const QString configured = QStringLiteral(VELNORA_EXTENSION_ID).trimmed();
    return configured.isEmpty() ? QString::fromLatin1(defaultExtensionIdentifier) : configured;
}

QString ExplainerConstants::firefoxExtensionIdentifier()
{
    const QString configured = QStringLiteral(VELNORA_FIREFOX_EXTENSION_ID).trimmed();
    return configured.isEmpty() ? QString::fromLatin1(defaultFirefoxExtensionIdentifier) : configured;
}

} // namespace velnora
