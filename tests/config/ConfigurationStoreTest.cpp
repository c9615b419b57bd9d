#include "config/ConfigurationError.h"
#include "config/ConfigurationStore.h"
#include "config/PromptLibrary.h"

#include "support/TestEnvironment.h"

#include <QSettings>
#include <QSignalSpy>

#include <gtest/gtest.h>

using namespace velnora;

namespace {

class ConfigurationStoreTest : public testing::Test
{
protected:
    test::TemporaryHome home;
    QString path = home.filePath("settings.conf");
    ConfigurationStore store{path};

    void setRaw(const char* key, const QVariant& value)
    {
        QSettings raw(path, QSettings::IniFormat);
        raw.setValue(QLatin1String(key), value);
        raw.sync();
        store.settings().sync();
    }

    ConfigurationError::Kind resolveFailure(const QString& key)
    {
        try {
            store.resolvedProvider(key);
        } catch (const ConfigurationError& error) {
            return error.kind();
        }
        ADD_FAILURE() << "resolution succeeded";
        return ConfigurationError::Kind::editionRestricted;
    }
};

} // namespace

TEST_F(ConfigurationStoreTest, DefaultSettingsFileFollowsXdgConfigHome)
{
    EXPECT_EQ(ConfigurationStore::defaultSettingsPath(), home.configHome() + "/tarnwick/velnora-domestic.conf");
}

TEST_F(ConfigurationStoreTest, AbsentCorruptAndForeignValuesReadAsDefaults)
{
    EXPECT_EQ(store.executionMode(), ExecutionMode::browser);
    EXPECT_EQ(store.browserProvider(), BrowserProvider::doubao);
    EXPECT_EQ(store.apiProviderID(), "doubao");
    EXPECT_EQ(store.explanationDepth(), ExplanationDepth::balanced);
    EXPECT_EQ(store.systemPrompt(), PromptLibrary::defaultSystemPrompt());
    EXPECT_FALSE(store.didShowVersion2Setup());

    setRaw(ConfigurationStore::Keys::executionMode, "API");
    setRaw(ConfigurationStore::Keys::explanationDepth, "thorough");
    setRaw(ConfigurationStore::Keys::browserProvider, 42);
    setRaw(ConfigurationStore::Keys::providerOverrides, QByteArray("{not json"));
    setRaw(ConfigurationStore::Keys::lastKnownGoodProvider, QByteArray(R"({"providerID":"kimi","model":7})"));
    EXPECT_EQ(store.executionMode(), ExecutionMode::browser);
    EXPECT_EQ(store.explanationDepth(), ExplanationDepth::balanced);
    EXPECT_EQ(store.browserProvider(), BrowserProvider::doubao);
    EXPECT_TRUE(store.providerOverrides().isEmpty());
    EXPECT_EQ(store.lastKnownGoodProvider(), std::nullopt);

    // Values written by hand (as plain strings) are understood too.
    setRaw(ConfigurationStore::Keys::providerOverrides, QString(R"({"qwen":{"baseURL":"","model":"qwen-max"},"x":3})"));
    EXPECT_EQ(store.providerOverride("qwen"), (ProviderOverride{"", "qwen-max"}));
}

TEST_F(ConfigurationStoreTest, ValuesPersistUnderTheirKeysAndEveryWriteIsAnnounced)
{
    QSignalSpy changes(&store, &ConfigurationStore::configurationDidChange);
    store.setExecutionMode(ExecutionMode::api);
    store.setBrowserProvider(BrowserProvider::glm);
    store.setApiProviderID("kimi");
    store.setExplanationDepth(ExplanationDepth::deep);
    store.setDidShowVersion2Setup(true);
    EXPECT_EQ(changes.count(), 5);

    QSettings raw(path, QSettings::IniFormat);
    EXPECT_EQ(raw.value("executionModeV2").toString(), "api");
    EXPECT_EQ(raw.value("browserProviderV2").toString(), "glm");
    EXPECT_EQ(raw.value("apiProviderV2").toString(), "kimi");
    EXPECT_EQ(raw.value("explanationDepthV2").toString(), "deep");

    ConfigurationStore reopened(path);
    EXPECT_EQ(reopened.executionMode(), ExecutionMode::api);
    EXPECT_EQ(reopened.explanationDepth(), ExplanationDepth::deep);
    EXPECT_TRUE(reopened.didShowVersion2Setup());
}

TEST_F(ConfigurationStoreTest, SystemPromptIsStoredNormalised)
{
    store.setSystemPrompt("  只用一句话解释。\n");
    EXPECT_EQ(store.systemPrompt(), "只用一句话解释。");
    store.setSystemPrompt("\n\n");
    EXPECT_EQ(store.systemPrompt(), PromptLibrary::defaultSystemPrompt());
}

TEST_F(ConfigurationStoreTest, OverridesNeverRepeatDefaults)
{
    const ProviderDefinition& kimi = ProviderDefinition::definition("kimi");
    store.saveProviderOverride("kimi", kimi.defaultBaseURL, "moonshot-v1-8k");
    EXPECT_EQ(store.providerOverride("kimi"), (ProviderOverride{"", "moonshot-v1-8k"}));

    store.saveProviderOverride("glm", "https://example.invalid/v4", "glm-5.2");
    EXPECT_EQ(store.providerOverride("glm"), (ProviderOverride{"https://example.invalid/v4", ""}));

    // Back to the defaults: the entry disappears, the other one stays.
    store.saveProviderOverride("kimi", kimi.defaultBaseURL, kimi.defaultModel);
    EXPECT_EQ(store.providerOverride("kimi"), std::nullopt);
    EXPECT_EQ(store.providerOverrides().keys(), QStringList{"glm"});

    QSettings raw(path, QSettings::IniFormat);
    EXPECT_EQ(raw.value("providerOverridesV2").toByteArray(), R"({"glm":{"baseURL":"https://example.invalid/v4","model":""}})");
}

TEST_F(ConfigurationStoreTest, ResolutionUsesOverridesAndTrims)
{
    store.setApiProviderID("kimi");
    store.saveProviderOverride("kimi", "", "moonshot-v1-8k");
    const ResolvedProviderConfiguration resolved = store.resolvedProvider("  sk-test\n");
    EXPECT_EQ(resolved.definition.id, "kimi");
    EXPECT_EQ(resolved.baseURL, "https://api.moonshot.cn/v1");
    EXPECT_EQ(resolved.model, "moonshot-v1-8k");
    EXPECT_EQ(resolved.apiKey, "sk-test");

    store.setApiProviderID("deepseek");
    EXPECT_EQ(store.resolvedProvider("k").model, "deepseek-v4-flash");
}

TEST_F(ConfigurationStoreTest, ResolutionFailsInTheDocumentedOrder)
{
    using Kind = ConfigurationError::Kind;
    // A provider outside the catalogue fails before anything else is looked at.
    store.setApiProviderID("openai");
    EXPECT_EQ(resolveFailure(""), Kind::editionRestricted);

    store.setApiProviderID("glm");
    store.saveProviderOverride("glm", "http://open.bigmodel.cn/api/paas/v4", "   ");
    EXPECT_EQ(resolveFailure(""), Kind::invalidBaseURL);
    store.saveProviderOverride("glm", "not a url at all", "");
    EXPECT_EQ(resolveFailure("k"), Kind::invalidBaseURL);

    store.saveProviderOverride("glm", "", " \n ");
    EXPECT_EQ(resolveFailure(""), Kind::missingModel); // the model is judged before the key
    store.saveProviderOverride("glm", "", "");
    EXPECT_EQ(resolveFailure(" \t"), Kind::missingAPIKey);

    store.saveProviderOverride("glm", "https://open.bigmodel.cn/api/paas/v4/", "chatglm-pro");
    EXPECT_EQ(resolveFailure("k"), Kind::editionRestricted);
    store.saveProviderOverride("glm", "https://proxy.example.com/v4", "");
    EXPECT_EQ(resolveFailure("k"), Kind::editionRestricted);
}

TEST_F(ConfigurationStoreTest, KnownGoodRecordRoundTripsAndCanBeCleared)
{
    const KnownGoodProvider record{"qwen", "https://dashscope.aliyuncs.com/compatible-mode/v1", "qwen-max"};
    store.setLastKnownGoodProvider(record);
    EXPECT_EQ(ConfigurationStore(path).lastKnownGoodProvider(), record);
    store.setLastKnownGoodProvider(std::nullopt);
    EXPECT_EQ(store.lastKnownGoodProvider(), std::nullopt);
    EXPECT_FALSE(QSettings(path, QSettings::IniFormat).contains("lastKnownGoodProviderV1"));
}

TEST_F(ConfigurationStoreTest, AdoptCopiesOnlyWhatTheTargetLacks)
{
    store.setExplanationDepth(ExplanationDepth::fast);
    ConfigurationStore::adopt({{"explanationDepthV2", "deep"}, {"legacyFlag", true}, {"apiProviderV2", "glm"}},
                              store.settings());
    EXPECT_EQ(store.explanationDepth(), ExplanationDepth::fast);
    EXPECT_EQ(store.apiProviderID(), "glm");
    EXPECT_TRUE(QSettings(path, QSettings::IniFormat).value("legacyFlag").toBool());
}
