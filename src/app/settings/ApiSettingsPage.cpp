#include "app/settings/ApiSettingsPage.h"

#include "app/settings/ConnectionTest.h"
#include "app/settings/FieldMarks.h"
#include "config/AppEdition.h"
#include "config/ConfigurationError.h"
#include "config/ConfigurationStore.h"
#include "config/KeychainStore.h"
#include "config/KeychainTask.h"
#include "config/PromptLibrary.h"
#include "llm/ApiKeyCheck.h"
#include "llm/ModelCatalog.h"

#include <QComboBox>
#include <QEvent>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QPointer>
#include <QPushButton>
#include <QSignalBlocker>
#include <QTimer>
#include <QUrl>
#include <QVBoxLayout>

namespace velnora {

namespace {

// Stands in for a stored key, which is never read back into the form; it cannot be part of a real key.
const QString storedKeyPlaceholder(12, QChar(0xE000));

QString typedKey(const QString& text)
{
    return QString(text).remove(QChar(0xE000));
}

// The field the policy objects to, trying the address before the model; none when accepted.
std::optional<ProviderField> policyFault(const QString& providerID, const QString& baseURL,
                                         const QString& model, const ApiSettingsPage::AddressPolicy& policy)
{
    if (!policy) {
        return std::nullopt;
    }
    const ProviderDefinition& definition = ProviderDefinition::definition(providerID);
    const auto refuses = [&](const QString& address, const QString& name) {
        try {
            policy({definition, address, name, QStringLiteral("key")});
            return false;
        } catch (const ConfigurationError&) {
            return true;
        }
    };
    if (refuses(baseURL, definition.defaultModel)) {
        return ProviderField::baseURL;
    }
    if (refuses(baseURL, model)) {
        return ProviderField::model;
    }
    return std::nullopt;
}

} // namespace

ApiSettingsPage::ApiSettingsPage(ConfigurationStore* configuration, KeychainStore* keychain,
                                 AddressPolicy addressPolicy, QWidget* parent)
    : SettingsPage(parent), m_configuration(configuration), m_keychain(keychain),
      m_addressPolicy(std::move(addressPolicy)), m_connectionTest(new ConnectionTest(m_addressPolicy, this))
{
    m_provider = new QComboBox(this);
    for (const ProviderDefinition& definition : ProviderDefinition::builtIn()) {
        m_provider->addItem(definition.title, definition.id);
    }
    m_provider->setAccessibleName(QStringLiteral("API 服务"));
    m_providerCaption = new ResultLine(this);
    m_providerCaption->setForegroundRole(QPalette::PlaceholderText);
    connect(m_provider, &QComboBox::currentIndexChanged, this, [this] {
        keepDraft();
        showProvider();
    });

    m_apiKey = new QLineEdit(this);
    m_apiKey->setEchoMode(QLineEdit::Password);
    m_apiKey->setPlaceholderText(QStringLiteral("粘贴服务商控制台里创建的 API Key"));
    m_apiKey->setAccessibleName(QStringLiteral("API Key"));
    m_apiKey->installEventFilter(this);
    m_keyStatus = new ResultLine(this);
    m_keyStatus->setForegroundRole(QPalette::PlaceholderText);
    connect(m_apiKey, &QLineEdit::textEdited, this, [this] { m_keyEdited = true; });

    m_baseURL = new QLineEdit(this);
    m_baseURL->setAccessibleName(QStringLiteral("Base URL"));
    auto* restoreDefaults = new QPushButton(QStringLiteral("恢复默认(&E)"), this);
    restoreDefaults->setToolTip(QStringLiteral("Base URL 和模型都恢复为这家服务的默认值"));
    auto* baseRow = new QHBoxLayout;
    baseRow->addWidget(m_baseURL, 1);
    baseRow->addWidget(restoreDefaults);
    connect(restoreDefaults, &QPushButton::clicked, this, [this] {
        const ProviderDefinition& definition = ProviderDefinition::definition(m_shownProviderID);
        m_baseURL->setText(definition.defaultBaseURL);
        m_model->setCurrentText(definition.defaultModel);
        m_marks->clear();
    });

    // An editable list: every fetched model can be picked, and any name can still be typed.
    m_model = new QComboBox(this);
    m_model->setEditable(true);
    m_model->setInsertPolicy(QComboBox::NoInsert);
    m_model->setMaxVisibleItems(12);
    m_model->setAccessibleName(QStringLiteral("模型"));
    m_fetchModels = new QPushButton(QStringLiteral("获取模型列表(&L)"), this);
    auto* modelRow = new QHBoxLayout;
    modelRow->addWidget(m_model, 1);
    modelRow->addWidget(m_fetchModels);
    m_modelListResult = new ResultLine(this);
    connect(m_fetchModels, &QPushButton::clicked, this, &ApiSettingsPage::fetchModels);

    m_marks = new FieldMarks(this, {m_apiKey, m_baseURL, m_model});

    m_systemPrompt = new QPlainTextEdit(this);
    m_systemPrompt->setTabChangesFocus(true);
    m_systemPrompt->setAccessibleName(QStringLiteral("系统提示词"));
    m_systemPrompt->setFixedHeight(m_systemPrompt->fontMetrics().lineSpacing() * 6 + 12);
    auto* restorePrompt = new QPushButton(QStringLiteral("恢复默认提示词(&O)"), this);
    connect(restorePrompt, &QPushButton::clicked, this,
            [this] { m_systemPrompt->setPlainText(PromptLibrary::defaultSystemPrompt()); });
    auto* promptRow = new QHBoxLayout;
    promptRow->addStretch(1);
    promptRow->addWidget(restorePrompt);

    // The two buttons beside the fields line up as one column.
    const int sideWidth = std::max(restoreDefaults->sizeHint().width(), m_fetchModels->sizeHint().width());
    restoreDefaults->setFixedWidth(sideWidth);
    m_fetchModels->setFixedWidth(sideWidth);

    auto* form = new QFormLayout;
    form->setLabelAlignment(Qt::AlignRight | Qt::AlignVCenter);
    form->setFieldGrowthPolicy(QFormLayout::AllNonFixedFieldsGrow);
    form->setHorizontalSpacing(12);
    form->addRow(labelFor(QStringLiteral("API 服务(&P)"), m_provider, this), m_provider);
    form->addRow(QString(), m_providerCaption);
    form->addRow(labelFor(QStringLiteral("API &Key"), m_apiKey, this), m_apiKey);
    form->addRow(QString(), m_keyStatus);
    form->addRow(labelFor(QStringLiteral("Base &URL"), m_baseURL, this), baseRow);
    form->addRow(labelFor(QStringLiteral("模型(&M)"), m_model, this), modelRow);
    form->addRow(QString(), m_modelListResult);
    form->addRow(labelFor(QStringLiteral("系统提示词(&Y)"), m_systemPrompt, this), m_systemPrompt);
    form->addRow(QString(), promptRow);

    m_test = new QPushButton(QStringLiteral("测试连接(&T)"), this);
    m_test->setToolTip(QStringLiteral("用当前填写的内容发一个一词的测试请求，不必先保存"));
    m_repairKeychain = new QPushButton(QStringLiteral("修复钥匙串授权(&F)"), this);
    m_repairKeychain->setToolTip(QStringLiteral("重新读取并写入这家服务的 API Key"));
    auto* actions = new QHBoxLayout;
    actions->addWidget(m_test);
    actions->addWidget(m_repairKeychain);
    actions->addStretch(1);
    m_testResult = new ResultLine(this, 3);
    connect(m_test, &QPushButton::clicked, this, &ApiSettingsPage::testConnection);
    connect(m_repairKeychain, &QPushButton::clicked, this, &ApiSettingsPage::repairKeychainAccess);

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(14, 14, 14, 14);
    layout->setSpacing(10);
    layout->addLayout(form);
    layout->addLayout(actions);
    layout->addWidget(m_testResult);
    layout->addStretch(1);

    connect(m_connectionTest, &ConnectionTest::finished, this,
            [this](const std::optional<ProviderDiagnosis>& failure, const QString& message) {
                m_testing = false;
                updateBusyButtons();
                if (failure) {
                    showDiagnosis(m_testResult, *failure);
                } else {
                    m_testResult->showMessage(message, Tone::success);
                }
            });
}

bool ApiSettingsPage::isBusy() const
{
    return m_testing || m_fetchingModels || m_keychainCalls > 0;
}

void ApiSettingsPage::load()
{
    m_drafts.clear();
    m_shownProviderID.clear();
    m_systemPrompt->setPlainText(m_configuration->systemPrompt());
    const QSignalBlocker blocker(m_provider);
    m_provider->setCurrentIndex(std::max(0, m_provider->findData(m_configuration->apiProviderID())));
    showProvider();
    clearResults();
}

ApiSettingsPage::Draft ApiSettingsPage::storedDraft(const QString& providerID) const
{
    const ProviderDefinition& definition = ProviderDefinition::definition(providerID);
    const ProviderOverride entry = m_configuration->providerOverride(providerID).value_or(ProviderOverride{});
    return {entry.baseURL.isEmpty() ? definition.defaultBaseURL : entry.baseURL,
            entry.model.isEmpty() ? definition.defaultModel : entry.model,
            {},
            false,
            {}};
}

void ApiSettingsPage::keepDraft()
{
    if (m_shownProviderID.isEmpty()) {
        return;
    }
    QStringList models;
    for (int index = 0; index < m_model->count(); ++index) {
        models << m_model->itemText(index);
    }
    m_drafts.insert(m_shownProviderID, {m_baseURL->text().trimmed(), m_model->currentText().trimmed(),
                                        typedKey(m_apiKey->text()), m_keyEdited, models});
}

void ApiSettingsPage::showProvider()
{
    m_shownProviderID = m_provider->currentData().toString();
    const ProviderDefinition& definition = ProviderDefinition::definition(m_shownProviderID);
    const Draft draft = m_drafts.value(m_shownProviderID, storedDraft(m_shownProviderID));
    m_baseURL->setText(draft.baseURL);
    m_baseURL->setPlaceholderText(definition.defaultBaseURL);
    {
        const QSignalBlocker blocker(m_model);
        m_model->clear();
        m_model->addItems(draft.models);
        m_model->setCurrentText(draft.model);
    }
    m_model->lineEdit()->setPlaceholderText(definition.defaultModel);
    m_providerCaption->setText(definition.platformTitle() + QStringLiteral(" · 默认模型 ") +
                               definition.defaultModel);
    m_keyEdited = draft.keyEdited;
    m_apiKey->setText(draft.keyEdited ? draft.key : QString());
    m_marks->clear();
    clearResults();
    if (!draft.keyEdited) {
        refreshKeyStatus(m_shownProviderID);
    }
}

void ApiSettingsPage::refreshKeyStatus(const QString& providerID)
{
    m_keyStatus->setText(QStringLiteral("正在查看系统钥匙串…"));
    runKeychain(
        [providerID](KeychainStore& store) {
            return KeychainReply{store.hasAPIKey(providerID), {}, {}};
        },
        [this, providerID](const KeychainReply& reply) {
            if (providerID != m_shownProviderID) {
                return;
            }
            m_keyStatus->setText(
                reply.flag ? QStringLiteral(
                                 "● 已保存在系统钥匙串中（不显示）。输入新 Key 可替换，清空后保存即删除。")
                           : QStringLiteral("○ 尚未保存这家服务的 API Key。"));
            if (!m_keyEdited) {
                m_apiKey->setText(reply.flag ? storedKeyPlaceholder : QString());
            }
        });
}

void ApiSettingsPage::runKeychain(std::function<KeychainReply(KeychainStore&)> work,
                                  std::function<void(const KeychainReply&)> done)
{
    ++m_keychainCalls;
    updateBusyButtons();
    KeychainTask::start(this, *m_keychain, std::move(work),
                        [this, done = std::move(done)](const KeychainReply& reply) {
                            --m_keychainCalls;
                            done(reply);
                            updateBusyButtons();
                        });
}

QHash<QString, ApiSettingsPage::Draft> ApiSettingsPage::allDrafts() const
{
    QHash<QString, Draft> drafts = m_drafts;
    drafts.insert(m_shownProviderID, {m_baseURL->text().trimmed(),
                                      m_model->currentText().trimmed(),
                                      typedKey(m_apiKey->text()),
                                      m_keyEdited,
                                      {}});
    return drafts;
}

bool ApiSettingsPage::differsFromStore(const QString& providerID, const Draft& draft) const
{
    const Draft stored = storedDraft(providerID);
    return draft.keyEdited || draft.baseURL != stored.baseURL || draft.model != stored.model;
}

bool ApiSettingsPage::isModified() const
{
    if (m_shownProviderID.isEmpty()) {
        return false;
    }
    const QHash<QString, Draft> drafts = allDrafts();
    for (auto it = drafts.cbegin(); it != drafts.cend(); ++it) {
        if (differsFromStore(it.key(), *it)) {
            return true;
        }
    }
    return m_shownProviderID != m_configuration->apiProviderID() ||
           PromptLibrary::normalizedSystemPrompt(m_systemPrompt->toPlainText()) !=
               m_configuration->systemPrompt();
}

std::optional<QString> ApiSettingsPage::refusal()
{
    m_marks->clear();
    const QHash<QString, Draft> drafts = allDrafts();
    for (auto it = drafts.cbegin(); it != drafts.cend(); ++it) {
        if (it.key() != m_shownProviderID && !differsFromStore(it.key(), *it)) {
            continue;
        }
        const ProviderDefinition& definition = ProviderDefinition::definition(it.key());
        const QString baseURL = it->baseURL.isEmpty() ? definition.defaultBaseURL : it->baseURL;
        const QString model = it->model.isEmpty() ? definition.defaultModel : it->model;
        const QUrl url(baseURL, QUrl::StrictMode);
        std::optional<ProviderField> field;
        QString message;
        if (!url.isValid() || url.host().isEmpty() || url.scheme().toLower() != u"https") {
            field = ProviderField::baseURL;
            message =
                ProviderDiagnostics::diagnose(ConfigurationError(ConfigurationError::Kind::invalidBaseURL))
                    .summary;
        } else if ((field = policyFault(it.key(), baseURL, model, AppEdition::validate))) {
            message = ConfigurationError(ConfigurationError::Kind::editionRestricted).description();
        } else if (const std::optional<QString> keyProblem =
                       it->keyEdited ? ApiKeyCheck::problem(it->key.trimmed()) : std::nullopt) {
            // Stored as typed, such a key would fail every request with no way to see why.
            field = ProviderField::apiKey;
            message = *keyProblem;
        } else {
            continue;
        }
        // The refused service is shown, with its field marked.
        m_provider->setCurrentIndex(m_provider->findData(it.key()));
        focusField(*field);
        return message;
    }
    return std::nullopt;
}

void ApiSettingsPage::save()
{
    clearResults();
    ConfigurationStore& store = *m_configuration;
    if (m_shownProviderID != store.apiProviderID()) {
        store.setApiProviderID(m_shownProviderID);
    }
    const QString prompt = PromptLibrary::normalizedSystemPrompt(m_systemPrompt->toPlainText());
    if (prompt != store.systemPrompt()) {
        store.setSystemPrompt(prompt);
    }
    m_systemPrompt->setPlainText(store.systemPrompt());

    const QHash<QString, Draft> drafts = allDrafts();
    for (auto it = drafts.cbegin(); it != drafts.cend(); ++it) {
        const ProviderDefinition& definition = ProviderDefinition::definition(it.key());
        const QString baseURL = it->baseURL.isEmpty() ? definition.defaultBaseURL : it->baseURL;
        const QString model = it->model.isEmpty() ? definition.defaultModel : it->model;
        const Draft stored = storedDraft(it.key());
        if (baseURL != stored.baseURL || model != stored.model) {
            store.saveProviderOverride(it.key(), baseURL, model);
        }
        if (!it->keyEdited) {
            continue;
        }
        const QString providerID = it.key();
        const QString key = it->key;
        ++m_writes;
        runKeychain(
            [providerID, key](KeychainStore& worker) {
                worker.saveAPIKey(key, providerID);
                return KeychainReply{};
            },
            [this, providerID, key](const KeychainReply& reply) {
                --m_writes;
                m_keychain->dropCachedKey(providerID); // written by the worker's own store
                if (!reply.error) {
                    if (providerID == m_shownProviderID && !m_keyEdited) {
                        refreshKeyStatus(providerID);
                    }
                    return;
                }
                // The typed key is an unsaved edit again, so it is neither lost nor closed away.
                if (providerID == m_shownProviderID) {
                    m_keyEdited = true;
                    m_apiKey->setText(key);
                } else {
                    Draft draft = m_drafts.value(providerID, storedDraft(providerID));
                    draft.key = key;
                    draft.keyEdited = true;
                    m_drafts.insert(providerID, draft);
                }
                const QString title = ProviderDefinition::definition(providerID).title;
                Q_EMIT reported(
                    QStringLiteral("其他设置已保存，但「%1」的 API Key 没有保存成功：").arg(title) +
                        ProviderDiagnostics::diagnose(*reply.error).summary,
                    Tone::error);
            });
    }
    // Everything is the store's now, or on its way there.
    m_drafts.clear();
    m_keyEdited = false;
}

void ApiSettingsPage::withFormConfiguration(ResultLine* line,
                                            std::function<void(const ResolvedProviderConfiguration&)> use,
                                            std::function<void()> failed)
{
    const ProviderDefinition& definition = ProviderDefinition::definition(m_shownProviderID);
    const QString baseURL =
        m_baseURL->text().trimmed().isEmpty() ? definition.defaultBaseURL : m_baseURL->text().trimmed();
    const QString model = m_model->currentText().trimmed().isEmpty() ? definition.defaultModel
                                                                     : m_model->currentText().trimmed();
    if (const auto fault = policyFault(definition.id, baseURL, model, m_addressPolicy)) {
        ProviderDiagnosis failure =
            ProviderDiagnostics::diagnose(ConfigurationError(ConfigurationError::Kind::editionRestricted));
        failure.field = *fault;
        failed();
        showDiagnosis(line, failure);
        return;
    }
    const auto proceed = [this, line, definition, baseURL, model, use, failed](const QString& key) {
        if (key.trimmed().isEmpty()) {
            failed();
            showDiagnosis(line, ProviderDiagnostics::diagnose(
                                    ConfigurationError(ConfigurationError::Kind::missingAPIKey)));
            return;
        }
        use(ResolvedProviderConfiguration{definition, baseURL, model, key.trimmed()});
    };
    if (m_keyEdited) {
        proceed(typedKey(m_apiKey->text()));
        return;
    }
    // The stored key: reading it may need the keyring unlocked, which must not freeze the window.
    const QString providerID = definition.id;
    line->showMessage(QStringLiteral("正在读取系统钥匙串…"), Tone::info);
    runKeychain(
        [providerID](KeychainStore& store) {
            return KeychainReply{false, store.apiKey(providerID), {}};
        },
        [this, line, providerID, proceed, failed](const KeychainReply& reply) {
            if (providerID != m_shownProviderID) {
                failed();
                line->clearMessage();
                return;
            }
            if (reply.error) {
                failed();
                showDiagnosis(line, ProviderDiagnostics::diagnose(*reply.error));
                return;
            }
            proceed(reply.key.value_or(QString()));
        });
}

void ApiSettingsPage::testConnection()
{
    if (m_testing) {
        return;
    }
    m_marks->clear();
    clearResults();
    m_testing = true;
    updateBusyButtons();
    withFormConfiguration(
        m_testResult,
        [this](const ResolvedProviderConfiguration& configuration) {
            m_testResult->showMessage(QStringLiteral("正在发送测试请求…"), Tone::info);
            m_connectionTest->start(configuration);
        },
        [this] {
            m_testing = false;
            updateBusyButtons();
        });
}

void ApiSettingsPage::fetchModels()
{
    if (m_fetchingModels) {
        return;
    }
    m_marks->clear();
    clearResults();
    m_fetchingModels = true;
    updateBusyButtons();
    const auto failed = [this] {
        m_fetchingModels = false;
        updateBusyButtons();
    };
    withFormConfiguration(
        m_modelListResult,
        [this](const ResolvedProviderConfiguration& configuration) {
            m_modelListResult->showMessage(QStringLiteral("正在获取模型列表…"), Tone::info);
            QPointer<ApiSettingsPage> self(this);
            const QString providerID = configuration.definition.id;
            ModelCatalog::fetch(
                configuration,
                [self, providerID](const ModelCatalog::ModelListResult& result) {
                    if (!self) {
                        return;
                    }
                    self->m_fetchingModels = false;
                    self->updateBusyButtons();
                    if (providerID != self->m_shownProviderID) {
                        return; // the user moved on to another service meanwhile
                    }
                    if (!result.ok()) {
                        self->showDiagnosis(self->m_modelListResult,
                                            ProviderDiagnostics::diagnose(result.failure()));
                        return;
                    }
                    const QString current = self->m_model->currentText().trimmed();
                    {
                        const QSignalBlocker blocker(self->m_model);
                        self->m_model->clear();
                        self->m_model->addItems(result.value());
                        self->m_model->setCurrentText(current);
                    }
                    const bool listed = result.value().contains(current);
                    self->m_modelListResult->showMessage(ModelCatalog::listSummary(result.value(), current),
                                                         listed ? Tone::success : Tone::warning);
                    if (!result.value().isEmpty()) {
                        self->m_model->showPopup();
                    }
                },
                m_addressPolicy);
        },
        failed);
}

void ApiSettingsPage::repairKeychainAccess()
{
    m_marks->clear();
    clearResults();
    const QString providerID = m_shownProviderID;
    const QString name = ProviderDefinition::definition(providerID).title;
    m_testResult->showMessage(QStringLiteral("正在修复钥匙串授权…"), Tone::info);
    ++m_writes;
    runKeychain(
        [providerID](KeychainStore& store) {
            return KeychainReply{store.repairAccess(providerID), {}, {}};
        },
        [this, providerID, name](const KeychainReply& reply) {
            m_keychain->dropCachedKey(providerID);
            if (reply.error) {
                showDiagnosis(m_testResult, ProviderDiagnostics::diagnose(*reply.error));
            } else if (reply.flag) {
                m_testResult->showMessage(
                    QStringLiteral("已重新写入「%1」的 API Key，钥匙串授权已修复。").arg(name),
                    Tone::success);
            } else {
                m_testResult->showMessage(QStringLiteral("「%1」还没有保存 API Key，无需修复。").arg(name),
                                          Tone::info);
            }
            if (providerID == m_shownProviderID && !m_keyEdited) {
                refreshKeyStatus(providerID);
            }
        });
}

void ApiSettingsPage::updateBusyButtons()
{
    Q_EMIT busyChanged();
    m_test->setEnabled(!m_testing);
    m_test->setText(m_testing ? QStringLiteral("正在测试…") : QStringLiteral("测试连接(&T)"));
    m_fetchModels->setEnabled(!m_fetchingModels);
    m_repairKeychain->setEnabled(m_keychainCalls == 0);
}

void ApiSettingsPage::clearResults()
{
    for (ResultLine* line : {m_testResult, m_modelListResult}) {
        line->clearMessage();
    }
}

QWidget* ApiSettingsPage::fieldWidget(ProviderField field) const
{
    switch (field) {
    case ProviderField::apiKey:
        return m_apiKey;
    case ProviderField::model:
        return m_model;
    case ProviderField::baseURL:
        return m_baseURL;
    }
    return nullptr;
}

void ApiSettingsPage::focusField(ProviderField field)
{
    m_marks->mark(fieldWidget(field));
    QWidget* widget = fieldWidget(field);
    widget->setFocus(Qt::OtherFocusReason);
    if (auto* edit = qobject_cast<QLineEdit*>(widget)) {
        edit->selectAll();
    } else if (auto* box = qobject_cast<QComboBox*>(widget)) {
        box->lineEdit()->selectAll();
    }
}

void ApiSettingsPage::showDiagnosis(ResultLine* line, const ProviderDiagnosis& diagnosis)
{
    line->showMessage(diagnosis.message(), Tone::error);
    if (diagnosis.field) {
        Q_EMIT fieldNeedsAttention();
        focusField(*diagnosis.field);
    }
}

bool ApiSettingsPage::eventFilter(QObject* watched, QEvent* event)
{
    // A click into the field of a stored key selects the stand-in, so typing replaces it.
    if (watched == m_apiKey && event->type() == QEvent::FocusIn && !m_keyEdited &&
        m_apiKey->text() == storedKeyPlaceholder) {
        QTimer::singleShot(0, m_apiKey, [this] { m_apiKey->selectAll(); });
    }
    return SettingsPage::eventFilter(watched, event);
}

} // namespace velnora
