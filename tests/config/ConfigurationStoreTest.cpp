#include "config/ConfigurationStore.h"

#include "config/ConfigurationError.h"
#include "config/PromptLibrary.h"
#include "support/TestEnvironment.h"

#include <QFile>
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
};

} // namespace

// The application's own checks of the edition policy (every built-in default passes; http,
// queries and foreign models do not) and of the settings (defaults, overrides equal to the
// defaults dropped, resolution with an override).
TEST(ConfigSelfTestModes, EditionAndSettingsChecksPass)
{
    for (const QString mode : {"edition-self-test", "settings-self-test"}) {
        EXPECT_EQ(test::runProgram(test::velnoraBinary(), {"--" + mode}).out, mode + ": ok\n");
    }
}

TEST_F(ConfigurationStoreTest, CorruptAndForeignValuesReadAsDefaults)
{
    using Keys = ConfigurationStore::Keys;
    QSettings raw(path, QSettings::IniFormat);
    raw.setValue(Keys::executionMode, "API");
    raw.setValue(Keys::explanationDepth, "thorough");
    raw.setValue(Keys::browserProvider, 42);
    raw.setValue(Keys::providerOverrides, QByteArray("{not json"));
    raw.setValue(Keys::lastKnownGoodProvider, QByteArray(R"({"providerID":"kimi","model":7})"));
    raw.sync();
    store.sync();
    EXPECT_EQ(store.executionMode(), ExecutionMode::browser);
    EXPECT_EQ(store.explanationDepth(), ExplanationDepth::balanced);
    EXPECT_EQ(store.browserProvider(), BrowserProvider::doubao);
    EXPECT_TRUE(store.providerOverrides().isEmpty());
    EXPECT_EQ(store.lastKnownGoodProvider(), std::nullopt);

    // Values written by hand (as plain strings) are understood too.
    raw.setValue(Keys::providerOverrides, QString(R"({"qwen":{"baseURL":"","model":"qwen-max"},"x":3})"));
    raw.sync();
    store.sync();
    EXPECT_EQ(store.providerOverride("qwen"), (ProviderOverride{"", "qwen-max"}));
}

TEST_F(ConfigurationStoreTest, EveryWriteIsAnnouncedAndSurvivesAReopen)
{
    QSignalSpy changes(&store, &ConfigurationStore::configurationDidChange);
    const KnownGoodProvider record{"qwen", "https://dashscope.aliyuncs.com/compatible-mode/v1", "qwen-max"};
    store.setExecutionMode(ExecutionMode::api);
    store.setBrowserProvider(BrowserProvider::glm);
    store.setApiProviderID("kimi");
    store.setExplanationDepth(ExplanationDepth::deep);
    store.setSystemPrompt("  只用一句话解释。\n");
    store.setDidShowVersion2Setup(true);
    store.setLastKnownGoodProvider(record);
    EXPECT_EQ(changes.count(), 7);

    // Files written by earlier versions use these keys.
    QSettings raw(path, QSettings::IniFormat);
    EXPECT_EQ(raw.value("executionModeV2").toString(), "api");
    EXPECT_EQ(raw.value("apiProviderV2").toString(), "kimi");

    ConfigurationStore reopened(path);
    EXPECT_EQ(reopened.systemPrompt(), "只用一句话解释。");
    EXPECT_EQ(reopened.lastKnownGoodProvider(), record);

    store.setLastKnownGoodProvider(std::nullopt);
    EXPECT_EQ(changes.count(), 8);
    EXPECT_FALSE(QSettings(path, QSettings::IniFormat).contains("lastKnownGoodProviderV1"));
}

TEST_F(ConfigurationStoreTest, OldDefaultPromptsGainTheOutputRuleOnce)
{
    const QString oldCustom = QString::fromUtf8(PromptLibrary::openingSentence) + "请多举例子。";
    store.setSystemPrompt("  " + oldCustom + "\n");
    const QString upgraded = oldCustom + "\n- " + QString::fromUtf8(PromptLibrary::outputRule);
    EXPECT_EQ(store.systemPrompt(), upgraded);
    store.setSystemPrompt(upgraded);
    EXPECT_EQ(store.systemPrompt(), upgraded);
}

TEST_F(ConfigurationStoreTest, ResolutionRefusesForeignAddressesAndFailsInOrder)
{
    using Kind = ConfigurationError::Kind;
    const struct
    {
        const char* provider;
        const char* baseURL;
        const char* model;
        const char* key;
        Kind expected;
    } cases[] = {
        {"kimi", "", "kimi", "k", Kind::editionRestricted}, // the family needs its hyphen
        {"kimi", "https://API.moonshot.cn/v1", "", "k", Kind::editionRestricted},
        {"kimi", "https://user:pw@api.moonshot.cn/v1", "", "k", Kind::editionRestricted},
        {"kimi", "https://proxy.example.com/v1", "", "k", Kind::editionRestricted},
        {"openai", "", "", "", Kind::editionRestricted}, // outside the catalogue: nothing else is looked at
        {"glm", "http://open.bigmodel.cn/api/paas/v4", "   ", "", Kind::invalidBaseURL},
        {"glm", "", " \n ", "", Kind::missingModel}, // the model is judged before the key
        {"glm", "", "", " \t", Kind::missingAPIKey},
    };
    for (const auto& c : cases) {
        store.setApiProviderID(c.provider);
        store.saveProviderOverride(c.provider, c.baseURL, c.model);
        try {
            store.resolvedProvider(c.key);
            ADD_FAILURE() << "resolved " << c.baseURL << " " << c.model;
        } catch (const ConfigurationError& error) {
            EXPECT_EQ(error.kind(), c.expected) << c.baseURL << " " << c.model;
        }
    }
}

// Found by fuzzing: an unquoted comma in a hand-edited prompt made it read as a list, and a list or any
// value that is no text read as an empty prompt, which drops every instruction.
TEST_F(ConfigurationStoreTest, HandEditedPromptsReadAsWrittenOrAsTheDefault)
{
    const QString fallback = PromptLibrary::defaultSystemPrompt();
    const std::pair<const char*, QString> cases[] = {
        {"systemPromptV2=请解释, 要简短", "请解释, 要简短"},
        {"systemPromptV2=\"请解释, 要简短\"", "请解释, 要简短"},
        {"systemPromptV2=@Variant(\\0\\0\\0\\x7f\\0\\0\\0\\x6QFrobs\\0)", fallback},
        {"systemPromptV2=", fallback},
        {"systemPromptV2=\"   \"", fallback},
    };
    int n = 0;
    for (const auto& [line, expected] : cases) {
        const QString file = home.filePath(QStringLiteral("hand-edited-%1.conf").arg(++n));
        QFile written(file);
        ASSERT_TRUE(written.open(QIODevice::WriteOnly));
        written.write(QByteArray("[General]\n") + line + "\n");
        written.close();
        EXPECT_EQ(ConfigurationStore(file).systemPrompt(), expected) << line;
    }
}

// A hand-edited "@Variant(...)" value can make Qt's reader allocate gigabytes or crash; such lines are
// set aside, kept for the user, and the rest of the file still counts.
TEST_F(ConfigurationStoreTest, UnreadableValuesAreSetAsideAndTheRestIsRead)
{
    const QByteArray unsafe[] = {
        "executionModeV2=@Variant(\\0\\0\\0\\n\\0\\0\\0\\0\\x6\\0\\x61\\0p\\0i)",
        "didShowVersion2Setup=@Variant(\\0\\0\\0\\[General]x1\\x1)",
    };
    QFile written(path);
    ASSERT_TRUE(written.open(QIODevice::WriteOnly));
    written.write("[General]\n" + unsafe[0] + "\nbrowserProviderV2=kimi\n" + unsafe[1] + "\n");
    written.close();

    const ConfigurationStore reopened(path);
    EXPECT_EQ(reopened.browserProvider(), BrowserProvider::kimi);
    EXPECT_EQ(reopened.executionMode(), ExecutionMode::browser);
    QFile aside(path + ".unreadable");
    ASSERT_TRUE(aside.open(QIODevice::ReadOnly));
    EXPECT_EQ(aside.readAll(), unsafe[0] + "\n" + unsafe[1] + "\n");
}
