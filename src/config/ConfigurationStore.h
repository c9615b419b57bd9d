#pragma once

#include "config/ProviderCatalog.h"
#include "config/ResolvedProviderConfiguration.h"

#include <QMap>
#include <QObject>
#include <memory>
#include <optional>

class QSettings;

namespace velnora {

struct ProviderOverride
{
    QString baseURL; // empty: the definition's default applies
    QString model;   // empty: the definition's default applies
    friend bool operator==(const ProviderOverride&, const ProviderOverride&) = default;
};

// Last configuration that answered; never holds a key.
struct KnownGoodProvider
{
    QString providerID;
    QString baseURL;
    QString model;
    friend bool operator==(const KnownGoodProvider&, const KnownGoodProvider&) = default;
};

// The user's persisted choices. Every read goes to the settings file, so a change written through
// one store object is seen at once by every reader of that object.
class ConfigurationStore : public QObject
{
    Q_OBJECT
public:
    static constexpr const char* configurationDidChangeName = "ExplainerConfigurationDidChange";

    struct Keys
    {
        static constexpr const char* executionMode = "executionModeV2";
        static constexpr const char* browserProvider = "browserProviderV2";
        static constexpr const char* apiProvider = "apiProviderV2";
        static constexpr const char* explanationDepth = "explanationDepthV2";
        static constexpr const char* systemPrompt = "systemPromptV2";
        static constexpr const char* providerOverrides = "providerOverridesV2";
        static constexpr const char* lastKnownGoodProvider = "lastKnownGoodProviderV1";
        static constexpr const char* didShowVersion2Setup = "didShowVersion2Setup";
        static constexpr const char* globalHotKey = "globalHotKey";
        static constexpr const char* didShowNoTrayHint = "didShowNoTrayHint";
    };

    // The user's settings file: $XDG_CONFIG_HOME/tarnwick/velnora-domestic.conf.
    static QString defaultSettingsPath();

    explicit ConfigurationStore(QObject* parent = nullptr);
    // A store over a private settings file (self-checks, tests).
    explicit ConfigurationStore(const QString& settingsPath, QObject* parent = nullptr);
    ~ConfigurationStore() override;

    ExecutionMode executionMode() const;
    void setExecutionMode(ExecutionMode mode);
    BrowserProvider browserProvider() const;
    void setBrowserProvider(BrowserProvider provider);
    QString apiProviderID() const;
    void setApiProviderID(const QString& id);
    ExplanationDepth explanationDepth() const;
    void setExplanationDepth(ExplanationDepth depth);
    QString systemPrompt() const;
    // The default prompt is never stored, so a later release's default reaches the user.
    void setSystemPrompt(const QString& prompt);
    bool didShowVersion2Setup() const;
    void setDidShowVersion2Setup(bool shown);
    // Whether the user was told once that this desktop has no tray.
    bool didShowNoTrayHint() const;
    void setDidShowNoTrayHint(bool shown);
    // The id of the chosen hot-key combination; absent when never chosen.
    std::optional<QString> globalHotKeyID() const;
    void setGlobalHotKeyID(const QString& id);

    QMap<QString, ProviderOverride> providerOverrides() const;
    std::optional<ProviderOverride> providerOverride(const QString& id) const;
    void saveProviderOverride(const QString& id, const QString& baseURL, const QString& model);

    // The configuration of the API provider; throws ConfigurationError.
    ResolvedProviderConfiguration resolvedProvider(const QString& apiKey) const;

    std::optional<KnownGoodProvider> lastKnownGoodProvider() const;
    void setLastKnownGoodProvider(const std::optional<KnownGoodProvider>& record);

    // Picks up what another process wrote to the file meanwhile.
    void sync();

Q_SIGNALS:
    // Emitted after every write, so menus and open windows can refresh their labels.
    void configurationDidChange();

private:
    QString readString(const char* key) const;
    void write(const char* key, const QVariant& value);

    std::unique_ptr<QSettings> m_settings;
};

} // namespace velnora
