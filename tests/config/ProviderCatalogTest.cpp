#include "config/AppEdition.h"
#include "config/ConfigurationError.h"
#include "config/PromptLibrary.h"
#include "config/ProviderCatalog.h"

#include <gtest/gtest.h>

using namespace velnora;

namespace {

bool editionAccepts(const QString& id, const QString& baseURL, const QString& model)
{
    try {
        AppEdition::validate({ProviderDefinition::definition(id), baseURL, model, QStringLiteral("k")});
        return true;
    } catch (const ConfigurationError& error) {
        EXPECT_EQ(error.kind(), ConfigurationError::Kind::editionRestricted);
        return false;
    }
}

} // namespace

TEST(ProviderCatalog, BuiltInsAreTheSevenServicesInMenuOrder)
{
    QStringList ids;
    for (const auto& definition : ProviderDefinition::builtIn()) {
        ids << definition.id;
        EXPECT_EQ(definition.iconName, definition.id);
        EXPECT_TRUE(definition.defaultBaseURL.startsWith(u"https://")) << definition.id.toStdString();
        EXPECT_FALSE(definition.defaultBaseURL.endsWith(u'/'));
        EXPECT_TRUE(AppEdition::modelAllowed(definition.defaultModel, definition.id)) << definition.id.toStdString();
    }
    EXPECT_EQ(ids, (QStringList{"doubao", "deepseek", "qwen", "kimi", "glm", "hunyuan", "ernie"}));
}

TEST(ProviderCatalog, UnknownOrMiscasedIdFallsBackToDoubao)
{
    EXPECT_EQ(ProviderDefinition::definition("openai").id, "doubao");
    EXPECT_EQ(ProviderDefinition::definition("DeepSeek").id, "doubao");
    EXPECT_EQ(ProviderDefinition::find("DeepSeek"), nullptr);
}

TEST(ProviderCatalog, RawValuesRoundTripAndRejectUnknownStrings)
{
    for (auto protocol : allCases<ProviderWireProtocol>()) {
        EXPECT_EQ(fromRawValue<ProviderWireProtocol>(rawValue(protocol)), protocol);
    }
    EXPECT_EQ(rawValue(ProviderWireProtocol::geminiGenerateContent), "geminiGenerateContent");
    EXPECT_EQ(fromRawValue<ProviderWireProtocol>(u"openaichat"), std::nullopt);
    EXPECT_EQ(fromRawValue<BrowserProvider>(u"ernie"), BrowserProvider::ernie);
    EXPECT_EQ(fromRawValue<BrowserProvider>(u"openai"), std::nullopt);
}

TEST(AppEdition, ModelFamiliesAreMatchedCaseInsensitivelyByPrefix)
{
    EXPECT_TRUE(AppEdition::modelAllowed("Kimi-K3", "kimi"));
    EXPECT_TRUE(AppEdition::modelAllowed("moonshot-v1-128k", "kimi"));
    EXPECT_TRUE(AppEdition::modelAllowed("qwen3.6-plus", "qwen"));
    EXPECT_TRUE(AppEdition::modelAllowed("qwen-max", "qwen"));
    EXPECT_TRUE(AppEdition::modelAllowed("hunyuan-turbos", "hunyuan"));
    EXPECT_FALSE(AppEdition::modelAllowed("kimi", "kimi")); // the family needs its hyphen
    EXPECT_FALSE(AppEdition::modelAllowed("qwen3.6-plus", "deepseek"));
    EXPECT_FALSE(AppEdition::modelAllowed("gpt-4o", "openai"));
    EXPECT_FALSE(AppEdition::modelAllowed("", "glm"));
}

TEST(AppEdition, OnlyTheOfficialBaseURLPasses)
{
    const QString official = "https://api.moonshot.cn/v1";
    EXPECT_TRUE(editionAccepts("kimi", official, "kimi-k3"));
    EXPECT_TRUE(editionAccepts("kimi", official + "///", "kimi-k3"));
    EXPECT_FALSE(editionAccepts("kimi", "http://api.moonshot.cn/v1", "kimi-k3"));
    EXPECT_FALSE(editionAccepts("kimi", "https://API.moonshot.cn/v1", "kimi-k3"));
    EXPECT_FALSE(editionAccepts("kimi", official + "?region=cn", "kimi-k3"));
    EXPECT_FALSE(editionAccepts("kimi", official + "#frag", "kimi-k3"));
    EXPECT_FALSE(editionAccepts("kimi", "https://user:pw@api.moonshot.cn/v1", "kimi-k3"));
    EXPECT_FALSE(editionAccepts("kimi", "https://api.deepseek.com", "kimi-k3"));
    EXPECT_FALSE(editionAccepts("kimi", official, "deepseek-v4-flash"));

    ProviderDefinition foreign = ProviderDefinition::definition("kimi");
    foreign.id = "custom";
    EXPECT_THROW(AppEdition::validate({foreign, official, "kimi-k3", "k"}), ConfigurationError);
}

TEST(PromptLibrary, NormalisationKeepsUserTextAndUpgradesOldDefaults)
{
    const QString defaultPrompt = PromptLibrary::defaultSystemPrompt();
    EXPECT_TRUE(defaultPrompt.startsWith(QString::fromUtf8(PromptLibrary::openingSentence)));
    EXPECT_EQ(PromptLibrary::normalizedSystemPrompt(" \n\t \n"), defaultPrompt);
    EXPECT_EQ(PromptLibrary::normalizedSystemPrompt(defaultPrompt), defaultPrompt);
    EXPECT_EQ(PromptLibrary::normalizedSystemPrompt("\n  请用英文回答。  \n"), "请用英文回答。");

    const QString oldCustom = QString::fromUtf8(PromptLibrary::openingSentence) + "请多举例子。";
    EXPECT_EQ(PromptLibrary::normalizedSystemPrompt("  " + oldCustom + "\n"),
              oldCustom + "\n- " + QString::fromUtf8(PromptLibrary::outputRule));
    // Applying it twice does not add the rule again.
    const QString once = PromptLibrary::normalizedSystemPrompt(oldCustom);
    EXPECT_EQ(PromptLibrary::normalizedSystemPrompt(once), once);
}
