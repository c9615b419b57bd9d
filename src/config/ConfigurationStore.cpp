#include "config/ConfigurationStore.h"

#include "config/AppEdition.h"
#include "config/ConfigurationError.h"
#include "config/PromptLibrary.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSaveFile>
#include <QSettings>
#include <QStandardPaths>
#include <QUrl>

namespace velnora {

namespace {

QByteArray encodeOverrides(const QMap<QString, ProviderOverride>& overrides)
{
    QJsonObject root;
    for (auto it = overrides.cbegin(); it != overrides.cend(); ++it) {
        root.insert(it.key(), QJsonObject{{"baseURL", it->baseURL}, {"model", it->model}});
    }
    return QJsonDocument(root).toJson(QJsonDocument::Compact);
}

// Qt's reader of "@Variant(...)" values trusts the sizes written inside them, so one hand-edited line
// could make every start allocate gigabytes and die. This store never writes such values: lines that
// carry one are moved to "<file>.unreadable" (kept for the user) before the file is read.
const QString& withoutUnsafeValues(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return path;
    }
    const QByteArray contents = file.readAll();
    file.close();
    static const QByteArray marker = QByteArrayLiteral("@Variant(");
    if (!contents.contains(marker)) {
        return path;
    }
    QByteArray kept;
    QByteArray setAside;
    for (const QByteArray& line : contents.split('\n')) {
        (line.contains(marker) ? setAside : kept).append(line).append('\n');
    }
    QFile aside(path + QStringLiteral(".unreadable"));
    QSaveFile cleaned(path);
    if (aside.open(QIODevice::Append) && aside.write(setAside) == setAside.size() && aside.flush() &&
        cleaned.open(QIODevice::WriteOnly) && cleaned.write(kept.chopped(1)) == kept.size() - 1) {
        cleaned.commit();
    }
    return path;
}

} // namespace

QString ConfigurationStore::defaultSettingsPath()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) +
           QStringLiteral("/tarnwick/velnora-domestic.conf");
}

ConfigurationStore::ConfigurationStore(QObject* parent) : ConfigurationStore(defaultSettingsPath(), parent) {}

ConfigurationStore::ConfigurationStore(const QString& settingsPath, QObject* parent)
    : QObject(parent),
      m_settings(std::make_unique<QSettings>(withoutUnsafeValues(settingsPath), QSettings::IniFormat))
{}

ConfigurationStore::~ConfigurationStore() = default;

QString ConfigurationStore::readString(const char* key) const
{
    const QVariant value = m_settings->value(QLatin1String(key));
    // An unquoted comma in a hand-edited value makes the file format read a list; the text was meant.
    if (value.typeId() == QMetaType::QStringList) {
        return value.toStringList().join(QStringLiteral(", "));
    }
    return value.canConvert<QString>() ? value.toString() : QString();
}

void ConfigurationStore::write(const char* key, const QVariant& value)
{
    if (value.isNull()) {
        m_settings->remove(QLatin1String(key));
    } else {
        m_settings->setValue(QLatin1String(key), value);
    }
    m_settings->sync();
    Q_EMIT configurationDidChange();
}

ExecutionMode ConfigurationStore::executionMode() const
{
    return readString(Keys::executionMode) == QLatin1String("api") ? ExecutionMode::api
                                                                   : ExecutionMode::browser;
}

void ConfigurationStore::setExecutionMode(ExecutionMode mode)
{
    write(Keys::executionMode, rawValue(mode));
}

BrowserProvider ConfigurationStore::browserProvider() const
{
    return fromRawValue<BrowserProvider>(readString(Keys::browserProvider)).value_or(BrowserProvider::doubao);
}

void ConfigurationStore::setBrowserProvider(BrowserProvider provider)
{
    write(Keys::browserProvider, rawValue(provider));
}

QString ConfigurationStore::apiProviderID() const
{
    const QString id = readString(Keys::apiProvider);
    return id.isEmpty() ? QStringLiteral("doubao") : id;
}

void ConfigurationStore::setApiProviderID(const QString& id)
{
    write(Keys::apiProvider, id);
}

ExplanationDepth ConfigurationStore::explanationDepth() const
{
    return fromRawValue<ExplanationDepth>(readString(Keys::explanationDepth))
        .value_or(ExplanationDepth::balanced);
}

void ConfigurationStore::setExplanationDepth(ExplanationDepth depth)
{
    write(Keys::explanationDepth, rawValue(depth));
}

QString ConfigurationStore::systemPrompt() const
{
    // Saving never stores an empty prompt; an empty or unreadable one left by a hand edit would drop
    // every instruction, so it reads as the default like a missing one.
    const QString stored = readString(Keys::systemPrompt);
    return stored.trimmed().isEmpty() ? PromptLibrary::defaultSystemPrompt() : stored;
}

void ConfigurationStore::setSystemPrompt(const QString& prompt)
{
    const QString normalized = PromptLibrary::normalizedSystemPrompt(prompt);
    write(Keys::systemPrompt, normalized == PromptLibrary::defaultSystemPrompt() ? QVariant() : normalized);
}

bool ConfigurationStore::didShowVersion2Setup() const
{
    const QVariant value = m_settings->value(QLatin1String(Keys::didShowVersion2Setup));
    return value.typeId() == QMetaType::Bool ? value.toBool() : value.toString() == QLatin1String("true");
}

void ConfigurationStore::setDidShowVersion2Setup(bool shown)
{
    write(Keys::didShowVersion2Setup, shown);
}

bool ConfigurationStore::didShowNoTrayHint() const
{
    return m_settings->value(QLatin1String(Keys::didShowNoTrayHint)).toBool();
}

void ConfigurationStore::setDidShowNoTrayHint(bool shown)
{
    write(Keys::didShowNoTrayHint, shown);
}

std::optional<QString> ConfigurationStore::globalHotKeyID() const
{
    if (!m_settings->contains(QLatin1String(Keys::globalHotKey))) {
        return std::nullopt;
    }
    return readString(Keys::globalHotKey);
}

void ConfigurationStore::setGlobalHotKeyID(const QString& id)
{
    write(Keys::globalHotKey, id);
}

QMap<QString, ProviderOverride> ConfigurationStore::providerOverrides() const
{
    QMap<QString, ProviderOverride> overrides;
    const QJsonDocument document =
        QJsonDocument::fromJson(m_settings->value(QLatin1String(Keys::providerOverrides)).toByteArray());
    const QJsonObject root = document.object();
    for (auto it = root.begin(); it != root.end(); ++it) {
        if (!it->isObject()) {
            continue;
        }
        const QJsonObject entry = it->toObject();
        overrides.insert(it.key(), {entry.value("baseURL").toString(), entry.value("model").toString()});
    }
    return overrides;
}

std::optional<ProviderOverride> ConfigurationStore::providerOverride(const QString& id) const
{
    const auto overrides = providerOverrides();
    const auto it = overrides.constFind(id);
    return it == overrides.cend() ? std::nullopt : std::optional(*it);
}

void ConfigurationStore::saveProviderOverride(const QString& id, const QString& baseURL, const QString& model)
{
    const ProviderDefinition& definition = ProviderDefinition::definition(id);
    const ProviderOverride entry{baseURL == definition.defaultBaseURL ? QString() : baseURL,
                                 model == definition.defaultModel ? QString() : model};
    QMap<QString, ProviderOverride> overrides = providerOverrides();
    if (entry.baseURL.isEmpty() && entry.model.isEmpty()) {
        overrides.remove(id);
    } else {
        overrides.insert(id, entry);
    }
    write(Keys::providerOverrides, encodeOverrides(overrides));
}

ResolvedProviderConfiguration ConfigurationStore::resolvedProvider(const QString& apiKey) const
{
    const QString id = apiProviderID();
    const ProviderDefinition* definition = ProviderDefinition::find(id);
    if (!definition) {
        throw ConfigurationError(ConfigurationError::Kind::editionRestricted);
    }
    const ProviderOverride entry = providerOverride(id).value_or(ProviderOverride{});
    const QString baseURL = entry.baseURL.isEmpty() ? definition->defaultBaseURL : entry.baseURL;
    const QString model = (entry.model.isEmpty() ? definition->defaultModel : entry.model).trimmed();

    const QUrl url(baseURL, QUrl::StrictMode);
    const QString scheme = url.scheme().toLower();
    if (!url.isValid() || url.host().isEmpty() ||
        !(scheme == u"https" || (scheme == u"http" && id == u"custom"))) {
        throw ConfigurationError(ConfigurationError::Kind::invalidBaseURL);
    }
    if (model.isEmpty()) {
        throw ConfigurationError(ConfigurationError::Kind::missingModel);
    }
    const QString key = apiKey.trimmed();
    if (key.isEmpty()) {
        throw ConfigurationError(ConfigurationError::Kind::missingAPIKey);
    }
    ResolvedProviderConfiguration configuration{*definition, baseURL, model, key};
    AppEdition::validate(configuration);
    return configuration;
}

std::optional<KnownGoodProvider> ConfigurationStore::lastKnownGoodProvider() const
{
    const QJsonDocument document =
        QJsonDocument::fromJson(m_settings->value(QLatin1String(Keys::lastKnownGoodProvider)).toByteArray());
    const QJsonObject root = document.object();
    const QJsonValue id = root.value("providerID");
    const QJsonValue base = root.value("baseURL");
    const QJsonValue model = root.value("model");
    if (!id.isString() || !base.isString() || !model.isString()) {
        return std::nullopt;
    }
    return KnownGoodProvider{id.toString(), base.toString(), model.toString()};
}

void ConfigurationStore::setLastKnownGoodProvider(const std::optional<KnownGoodProvider>& record)
{
    if (!record) {
        write(Keys::lastKnownGoodProvider, QVariant());
        return;
    }
    const QJsonObject root{
        {"providerID", record->providerID}, {"baseURL", record->baseURL}, {"model", record->model}};
    write(Keys::lastKnownGoodProvider, QJsonDocument(root).toJson(QJsonDocument::Compact));
}

void ConfigurationStore::sync()
{
    m_settings->sync();
}

} // namespace velnora
