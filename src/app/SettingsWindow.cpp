#include "app/SettingsWindow.h"

#include "bridge/BridgeDiagnostics.h"
#include "bridge/BridgeRepair.h"
#include "bridge/BundledExtension.h"
#include "config/AppEdition.h"
#include "config/ConfigurationError.h"
#include "config/ConfigurationStore.h"
#include "config/KeychainStore.h"
#include "config/PromptLibrary.h"
#include "llm/LLMClient.h"
#include "llm/ModelCatalog.h"

#include <QApplication>
#include <QClipboard>
#include <QComboBox>
#include <QCompleter>
#include <QDateTime>
#include <QDesktopServices>
#include <QDir>
#include <QFormLayout>
#include <QFrame>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QResizeEvent>
#include <QSettings>
#include <QSignalBlocker>
#include <QStringListModel>
#include <QTabWidget>
#include <QTimer>
#include <QVBoxLayout>
#include <cmath>

namespace velnora {

namespace {

// Stands in for a stored key, which is never read back into the form; it cannot be part of a real key.
const QString storedKeyPlaceholder(12, QChar(0xE000));

constexpr double bridgeRepairTimeout = 12.0;
constexpr double bridgeMaximumAge = 4.0;
constexpr int testDeadlineMilliseconds = 30000;
constexpr int bridgeRefreshTicks = 2; // the Chrome status is re-read every two seconds while open
constexpr const char* markProperty = "velnoraMarked";

const QString testSystemPrompt = QStringLiteral("这是一次连接测试，请只回复一个词。");
const QString testQuestion = QStringLiteral("你好");

bool isDark(const QPalette& palette)
{
    return palette.color(QPalette::Window).lightness() < 128;
}

struct ToneColours
{
    QColor background;
    QColor text;
};

ToneColours toneColours(SettingsWindow::Tone tone, bool dark)
{
    switch (tone) {
    case SettingsWindow::Tone::success:
        return dark ? ToneColours{QColor(0x1e, 0x3a, 0x29), QColor(0x81, 0xc9, 0x95)}
                    : ToneColours{QColor(0xe6, 0xf4, 0xea), QColor(0x13, 0x73, 0x33)};
    case SettingsWindow::Tone::warning:
        return dark ? ToneColours{QColor(0x3d, 0x32, 0x14), QColor(0xfd, 0xd6, 0x63)}
                    : ToneColours{QColor(0xfe, 0xf7, 0xe0), QColor(0x8a, 0x5a, 0x00)};
    case SettingsWindow::Tone::error:
        return dark ? ToneColours{QColor(0x4a, 0x20, 0x20), QColor(0xf2, 0x8b, 0x82)}
                    : ToneColours{QColor(0xfc, 0xe8, 0xe6), QColor(0xa5, 0x0e, 0x0e)};
    case SettingsWindow::Tone::info:
        break;
    }
    return dark ? ToneColours{QColor(0x1f, 0x33, 0x54), QColor(0xae, 0xcb, 0xfa)}
                : ToneColours{QColor(0xe8, 0xf0, 0xfe), QColor(0x17, 0x4e, 0xa6)};
}

// Form layouts size a wrapped label by its narrowest layout, which leaves empty lines around short
// texts; this one asks for the height its text needs at the width it was given. Until it has been
// laid out (a page not shown yet) it assumes the width of the form's field column.
class WrappingLabel : public QLabel
{
public:
    static constexpr int assumedWidth = 470;

    using QLabel::QLabel;
    QSize sizeHint() const override { return fitted(QLabel::sizeHint()); }
    QSize minimumSizeHint() const override { return fitted(QLabel::minimumSizeHint()); }

protected:
    void resizeEvent(QResizeEvent* event) override
    {
        QLabel::resizeEvent(event);
        m_laidOut = true;
        if (event->oldSize().width() != width()) {
            updateGeometry();
        }
    }

private:
    QSize fitted(QSize size) const
    {
        size.setHeight(heightForWidth(m_laidOut ? width() : assumedWidth));
        return size;
    }

    bool m_laidOut = false;
};

QLabel* wrappingLabel(QWidget* parent)
{
    auto* label = new WrappingLabel(parent);
    label->setWordWrap(true);
    label->setTextInteractionFlags(Qt::TextSelectableByMouse);
    label->setTextFormat(Qt::PlainText);
    return label;
}

QLabel* captionLabel(QWidget* parent)
{
    QLabel* label = wrappingLabel(parent);
    label->setForegroundRole(QPalette::PlaceholderText);
    return label;
}

// One line of the answer, short enough for a status line.
QString firstWords(const QString& answer)
{
    const QString line = answer.simplified();
    constexpr qsizetype limit = 30;
    return line.size() > limit ? line.left(limit) + u'…' : line;
}

} // namespace

SettingsWindow::Collaborators SettingsWindow::Collaborators::standard(ConfigurationStore* configuration,
                                                                      KeychainStore* keychain)
{
    Collaborators collaborators;
    collaborators.configuration = configuration;
    collaborators.keychain = keychain;
    collaborators.addressPolicy = AppEdition::validate;
    collaborators.openURL = [](const QUrl& url) { return QDesktopServices::openUrl(url); };
    return collaborators;
}

SettingsWindow::SettingsWindow(Collaborators collaborators, QWidget* parent)
    : QWidget(parent, Qt::Tool), m_collaborators(std::move(collaborators)),
      m_requestStore(m_collaborators.requestStore ? *m_collaborators.requestStore : RequestStore()),
      m_client(std::make_shared<LLMClient>(m_collaborators.addressPolicy))
{
    Q_ASSERT(m_collaborators.configuration && m_collaborators.keychain);
    setWindowTitle(QStringLiteral("澜镜设置"));

    m_banner = new QLabel(this);
    m_banner->setWordWrap(true);
    m_banner->setTextFormat(Qt::PlainText);
    m_banner->setTextInteractionFlags(Qt::TextSelectableByMouse);
    m_banner->setAutoFillBackground(true);
    m_banner->setMargin(10);
    m_banner->hide();

    m_tabs = new QTabWidget(this);
    m_tabs->addTab(buildGeneralPage(), QStringLiteral("通用"));
    m_apiPage = buildAPIPage();
    m_tabs->addTab(m_apiPage, QStringLiteral("API 直连"));

    m_save = new QPushButton(QStringLiteral("保存"), this);
    m_save->setDefault(true);
    auto* close = new QPushButton(QStringLiteral("关闭"), this);
    auto* buttons = new QHBoxLayout;
    buttons->addStretch(1);
    buttons->addWidget(close);
    buttons->addWidget(m_save);

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(16, 16, 16, 14);
    layout->setSpacing(12);
    layout->addWidget(m_banner);
    layout->addWidget(m_tabs, 1);
    layout->addLayout(buttons);
    setMinimumWidth(640);

    connect(m_save, &QPushButton::clicked, this, [this] { save(); });
    connect(close, &QPushButton::clicked, this, &QWidget::close);

    m_ticker = new QTimer(this);
    m_ticker->setInterval(1000);
    connect(m_ticker, &QTimer::timeout, this, &SettingsWindow::tick);
    m_testDeadline = new QTimer(this);
    m_testDeadline->setSingleShot(true);
    m_testDeadline->setInterval(testDeadlineMilliseconds);
    connect(m_testDeadline, &QTimer::timeout, this, [this] {
        ++m_testGeneration; // the cancelled stream's completion is stale now
        if (m_client) {
            m_client->cancel();
        }
        m_testing = false;
        updateBusyButtons();
        showResult(m_testResult, QStringLiteral("测试请求 30 秒内没有完成，请检查网络后重试。"), Tone::error);
    });

    // The tray menu changes the mode and the services too; an open window follows it.
    connect(m_collaborators.configuration, &ConfigurationStore::configurationDidChange, this, [this] {
        if (m_savingNow) {
            return;
        }
        const ConfigurationStore& store = *m_collaborators.configuration;
        m_mode->setCurrentIndex(m_mode->findData(rawValue(store.executionMode())));
        m_browserProvider->setCurrentIndex(m_browserProvider->findData(rawValue(store.browserProvider())));
        m_depth->setCurrentIndex(m_depth->findData(rawValue(store.explanationDepth())));
    });

    loadFromStore();
}

SettingsWindow::~SettingsWindow()
{
    ++m_testGeneration;
    if (m_client) {
        m_client->cancel();
    }
}

QWidget* SettingsWindow::buildGeneralPage()
{
    auto* page = new QWidget(this);

    m_mode = new QComboBox(page);
    m_mode->addItem(QStringLiteral("网页会话（免 Key）"), rawValue(ExecutionMode::browser));
    m_mode->addItem(QStringLiteral("悬浮卡片（API 直连）"), rawValue(ExecutionMode::api));
    m_browserProvider = new QComboBox(page);
    for (const BrowserProvider provider : allCases<BrowserProvider>()) {
        m_browserProvider->addItem(browserProviderTitle(provider), rawValue(provider));
    }
    m_depth = new QComboBox(page);
    for (const ExplanationDepth depth : allCases<ExplanationDepth>()) {
        m_depth->addItem(depthTitle(depth), rawValue(depth));
    }
    m_depthHint = captionLabel(page);
    connect(m_depth, &QComboBox::currentIndexChanged, this, &SettingsWindow::refreshDepthHint);

    auto* form = new QFormLayout;
    form->setLabelAlignment(Qt::AlignRight | Qt::AlignVCenter);
    form->setFieldGrowthPolicy(QFormLayout::AllNonFixedFieldsGrow);
    form->setHorizontalSpacing(12);
    form->addRow(QStringLiteral("运行模式"), m_mode);
    form->addRow(QStringLiteral("网页会话服务"), m_browserProvider);
    form->addRow(QStringLiteral("解释深度"), m_depth);
    form->addRow(QString(), m_depthHint);

    auto* chrome = new QGroupBox(QStringLiteral("Chrome 连接"), page);
    m_bridgeStatus = wrappingLabel(chrome);
    QFont statusFont = m_bridgeStatus->font();
    statusFont.setBold(true);
    m_bridgeStatus->setFont(statusFont);
    m_bridgeAdvice = wrappingLabel(chrome);
    m_bridgeMessage = captionLabel(chrome);
    m_bridgeMessage->hide();
    m_repairBridge = new QPushButton(QStringLiteral("修复连接"), chrome);
    m_installExtension = new QPushButton(QStringLiteral("安装扩展"), chrome);
    m_repairBridge->setToolTip(QStringLiteral("重新写入连接配置，在后台唤起 Chrome，并等待扩展连上"));
    m_installExtension->setToolTip(QStringLiteral("打开随应用附带的扩展目录，并复制 Chrome 扩展页的地址"));
    auto* chromeButtons = new QHBoxLayout;
    chromeButtons->addWidget(m_repairBridge);
    chromeButtons->addWidget(m_installExtension);
    chromeButtons->addStretch(1);
    auto* chromeLayout = new QVBoxLayout(chrome);
    chromeLayout->setSpacing(8);
    chromeLayout->addWidget(m_bridgeStatus);
    chromeLayout->addWidget(m_bridgeAdvice);
    chromeLayout->addLayout(chromeButtons);
    chromeLayout->addWidget(m_bridgeMessage);
    connect(m_repairBridge, &QPushButton::clicked, this, &SettingsWindow::repairBridge);
    connect(m_installExtension, &QPushButton::clicked, this, &SettingsWindow::installExtension);

    auto* layout = new QVBoxLayout(page);
    layout->setContentsMargins(14, 14, 14, 14);
    layout->setSpacing(14);
    layout->addLayout(form);
    layout->addWidget(chrome);
    layout->addStretch(1);
    return page;
}

QWidget* SettingsWindow::buildAPIPage()
{
    auto* page = new QWidget(this);

    m_apiProvider = new QComboBox(page);
    for (const ProviderDefinition& definition : ProviderDefinition::builtIn()) {
        m_apiProvider->addItem(definition.title, definition.id);
    }
    m_providerCaption = captionLabel(page);
    connect(m_apiProvider, &QComboBox::currentIndexChanged, this, &SettingsWindow::loadProviderFields);

    m_apiKey = new QLineEdit(page);
    m_apiKey->setEchoMode(QLineEdit::Password);
    m_apiKey->setPlaceholderText(QStringLiteral("粘贴服务商控制台里创建的 API Key"));
    m_apiKey->installEventFilter(this);
    m_apiKeyStatus = captionLabel(page);
    connect(m_apiKey, &QLineEdit::textEdited, this, [this] {
        m_keyEdited = true;
        m_apiKey->setProperty(markProperty, false);
        m_apiKey->setPalette(QPalette());
    });

    m_baseURL = new QLineEdit(page);
    auto* restoreDefaults = new QPushButton(QStringLiteral("恢复默认"), page);
    restoreDefaults->setToolTip(QStringLiteral("Base URL 和模型都恢复为这家服务的默认值"));
    auto* baseRow = new QHBoxLayout;
    baseRow->addWidget(m_baseURL, 1);
    baseRow->addWidget(restoreDefaults);
    connect(restoreDefaults, &QPushButton::clicked, this, [this] {
        const ProviderDefinition& definition = ProviderDefinition::definition(m_loadedProviderID);
        m_baseURL->setText(definition.defaultBaseURL);
        m_model->setText(definition.defaultModel);
        clearMarks();
    });

    m_model = new QLineEdit(page);
    m_modelCompletions = new QStringListModel(this);
    m_modelCompleter = new QCompleter(m_modelCompletions, this);
    m_modelCompleter->setCaseSensitivity(Qt::CaseInsensitive);
    m_modelCompleter->setFilterMode(Qt::MatchContains);
    m_model->setCompleter(m_modelCompleter);
    m_fetchModels = new QPushButton(QStringLiteral("获取模型列表"), page);
    auto* modelRow = new QHBoxLayout;
    modelRow->addWidget(m_model, 1);
    modelRow->addWidget(m_fetchModels);
    m_modelListResult = wrappingLabel(page);
    m_modelListResult->hide();
    connect(m_fetchModels, &QPushButton::clicked, this, &SettingsWindow::fetchModels);
    for (QLineEdit* field : {m_baseURL, m_model}) {
        connect(field, &QLineEdit::textEdited, this, [field] {
            field->setProperty(markProperty, false);
            field->setPalette(QPalette());
        });
    }

    m_systemPrompt = new QPlainTextEdit(page);
    m_systemPrompt->setTabChangesFocus(true);
    m_systemPrompt->setFixedHeight(m_systemPrompt->fontMetrics().lineSpacing() * 6 + 12);
    auto* restorePrompt = new QPushButton(QStringLiteral("恢复默认提示词"), page);
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
    form->addRow(QStringLiteral("API 服务"), m_apiProvider);
    form->addRow(QString(), m_providerCaption);
    form->addRow(QStringLiteral("API Key"), m_apiKey);
    form->addRow(QString(), m_apiKeyStatus);
    form->addRow(QStringLiteral("Base URL"), baseRow);
    form->addRow(QStringLiteral("模型"), modelRow);
    form->addRow(QString(), m_modelListResult);
    form->addRow(QStringLiteral("系统提示词"), m_systemPrompt);
    form->addRow(QString(), promptRow);

    m_test = new QPushButton(QStringLiteral("测试连接"), page);
    m_test->setToolTip(QStringLiteral("用当前填写的内容发一个一词的测试请求，不必先保存"));
    m_repairKeychain = new QPushButton(QStringLiteral("修复钥匙串授权"), page);
    m_repairKeychain->setToolTip(QStringLiteral("重新读取并写入这家服务的 API Key"));
    auto* actions = new QHBoxLayout;
    actions->addWidget(m_test);
    actions->addWidget(m_repairKeychain);
    actions->addStretch(1);
    m_testResult = wrappingLabel(page);
    m_testResult->hide();
    connect(m_test, &QPushButton::clicked, this, &SettingsWindow::testConnection);
    connect(m_repairKeychain, &QPushButton::clicked, this, &SettingsWindow::repairKeychainAccess);

    auto* layout = new QVBoxLayout(page);
    layout->setContentsMargins(14, 14, 14, 14);
    layout->setSpacing(10);
    layout->addLayout(form);
    layout->addLayout(actions);
    layout->addWidget(m_testResult);
    layout->addStretch(1);
    return page;
}

void SettingsWindow::loadFromStore()
{
    const ConfigurationStore& store = *m_collaborators.configuration;
    m_mode->setCurrentIndex(m_mode->findData(rawValue(store.executionMode())));
    m_browserProvider->setCurrentIndex(m_browserProvider->findData(rawValue(store.browserProvider())));
    m_depth->setCurrentIndex(m_depth->findData(rawValue(store.explanationDepth())));
    m_systemPrompt->setPlainText(store.systemPrompt());
    {
        const QSignalBlocker blocker(m_apiProvider);
        m_apiProvider->setCurrentIndex(std::max(0, m_apiProvider->findData(store.apiProviderID())));
    }
    loadProviderFields();
    refreshDepthHint();
    m_testResult->hide();
    m_bridgeMessage->hide();
    clearMarks();
}

void SettingsWindow::loadProviderFields()
{
    m_loadedProviderID = m_apiProvider->currentData().toString();
    const ProviderDefinition& definition = ProviderDefinition::definition(m_loadedProviderID);
    const ProviderOverride entry =
        m_collaborators.configuration->providerOverride(m_loadedProviderID).value_or(ProviderOverride{});
    m_baseURL->setText(entry.baseURL.isEmpty() ? definition.defaultBaseURL : entry.baseURL);
    m_baseURL->setPlaceholderText(definition.defaultBaseURL);
    m_model->setText(entry.model.isEmpty() ? definition.defaultModel : entry.model);
    m_model->setPlaceholderText(definition.defaultModel);
    m_providerCaption->setText(definition.platformTitle() + QStringLiteral(" · 默认模型 ") +
                               definition.defaultModel);
    m_modelCompletions->setStringList({});
    m_modelListResult->hide();
    m_keyEdited = false;
    m_apiKey->setText(m_collaborators.keychain->hasAPIKey(m_loadedProviderID) ? storedKeyPlaceholder
                                                                              : QString());
    refreshKeyStatus();
    clearMarks();
}

void SettingsWindow::refreshKeyStatus()
{
    const bool stored = m_collaborators.keychain->hasAPIKey(m_loadedProviderID);
    m_apiKeyStatus->setText(
        stored ? QStringLiteral("● 已保存在系统钥匙串中（不显示）。输入新 Key 可替换，清空后保存即删除。")
               : QStringLiteral("○ 尚未保存这家服务的 API Key。"));
}

void SettingsWindow::refreshDepthHint()
{
    const auto depth = fromRawValue<ExplanationDepth>(m_depth->currentData().toString());
    m_depthHint->setText(depth ? depthInstruction(*depth) : QString());
}

SettingsWindow::FormProvider SettingsWindow::formProvider() const
{
    const ProviderDefinition& definition = ProviderDefinition::definition(m_loadedProviderID);
    const QString baseURL = m_baseURL->text().trimmed();
    const QString model = m_model->text().trimmed();
    return {definition.id, baseURL.isEmpty() ? definition.defaultBaseURL : baseURL,
            model.isEmpty() ? definition.defaultModel : model};
}

std::optional<ProviderField> SettingsWindow::policyFault(const FormProvider& form,
                                                         const AddressPolicy& policy)
{
    if (!policy) {
        return std::nullopt;
    }
    const ProviderDefinition& definition = ProviderDefinition::definition(form.id);
    const auto refuses = [&](const QString& baseURL, const QString& model) {
        try {
            policy({definition, baseURL, model, QStringLiteral("key")});
            return false;
        } catch (const ConfigurationError&) {
            return true;
        }
    };
    if (refuses(form.baseURL, definition.defaultModel)) {
        return ProviderField::baseURL;
    }
    if (refuses(form.baseURL, form.model)) {
        return ProviderField::model;
    }
    return std::nullopt;
}

bool SettingsWindow::save()
{
    clearMarks();
    hideBanner();
    ConfigurationStore& store = *m_collaborators.configuration;
    const FormProvider form = formProvider();

    // Everything is checked before anything is written, so a refusal leaves the settings as they were.
    const QUrl url(form.baseURL, QUrl::StrictMode);
    if (!url.isValid() || url.host().isEmpty() || url.scheme().toLower() != u"https") {
        const ProviderDiagnosis diagnosis =
            ProviderDiagnostics::diagnose(ConfigurationError(ConfigurationError::Kind::invalidBaseURL));
        showBanner(diagnosis.summary, Tone::error);
        focusField(ProviderField::baseURL);
        return false;
    }
    if (const auto fault = policyFault(form, AppEdition::validate)) {
        showBanner(ConfigurationError(ConfigurationError::Kind::editionRestricted).description(),
                   Tone::error);
        focusField(*fault);
        return false;
    }

    m_savingNow = true;
    std::optional<ProviderDiagnosis> keyFailure;
    {
        // One change notification after the whole save, not one per key.
        const QSignalBlocker blocker(&store);
        const auto mode = fromRawValue<ExecutionMode>(m_mode->currentData().toString());
        if (mode && *mode != store.executionMode()) {
            store.setExecutionMode(*mode);
        }
        const auto browser = fromRawValue<BrowserProvider>(m_browserProvider->currentData().toString());
        if (browser && *browser != store.browserProvider()) {
            store.setBrowserProvider(*browser);
        }
        if (form.id != store.apiProviderID()) {
            store.setApiProviderID(form.id);
        }
        const auto depth = fromRawValue<ExplanationDepth>(m_depth->currentData().toString());
        if (depth && *depth != store.explanationDepth()) {
            store.setExplanationDepth(*depth);
        }
        // The default prompt is never stored, so a later release's default reaches the user.
        const QString prompt = PromptLibrary::normalizedSystemPrompt(m_systemPrompt->toPlainText());
        if (prompt != store.systemPrompt()) {
            store.setSystemPrompt(prompt);
        }
        m_systemPrompt->setPlainText(store.systemPrompt());

        if (m_keyEdited) {
            try {
                m_collaborators.keychain->saveAPIKey(QString(m_apiKey->text()).remove(QChar(0xE000)),
                                                     form.id);
                m_keyEdited = false;
            } catch (const KeychainError& error) {
                keyFailure = ProviderDiagnostics::diagnose(error);
            }
        }

        const ProviderDefinition& definition = ProviderDefinition::definition(form.id);
        const ProviderOverride wanted{form.baseURL == definition.defaultBaseURL ? QString() : form.baseURL,
                                      form.model == definition.defaultModel ? QString() : form.model};
        if (wanted != store.providerOverride(form.id).value_or(ProviderOverride{})) {
            store.saveProviderOverride(form.id, form.baseURL, form.model);
        }
    }
    Q_EMIT store.configurationDidChange();
    m_savingNow = false;

    refreshKeyStatus();
    if (!m_keyEdited) {
        m_apiKey->setText(m_collaborators.keychain->hasAPIKey(form.id) ? storedKeyPlaceholder : QString());
    }
    Q_EMIT saved();
    if (keyFailure) {
        showBanner(QStringLiteral("其他设置已保存，但 API Key 没有保存成功：") + keyFailure->summary,
                   Tone::error);
        focusField(ProviderField::apiKey);
        return false;
    }
    showBanner(QStringLiteral("设置已保存。"), Tone::success);
    return true;
}

std::optional<ResolvedProviderConfiguration> SettingsWindow::formConfiguration(ProviderDiagnosis* failure)
{
    const FormProvider form = formProvider();
    if (const auto fault = policyFault(form, m_collaborators.addressPolicy)) {
        *failure =
            ProviderDiagnostics::diagnose(ConfigurationError(ConfigurationError::Kind::editionRestricted));
        failure->field = *fault;
        return std::nullopt;
    }
    QString key;
    if (m_keyEdited) {
        key = QString(m_apiKey->text()).remove(QChar(0xE000)).trimmed();
    } else {
        try {
            key = m_collaborators.keychain->apiKey(form.id).value_or(QString()).trimmed();
        } catch (const KeychainError& error) {
            *failure = ProviderDiagnostics::diagnose(error);
            return std::nullopt;
        }
    }
    if (key.isEmpty()) {
        *failure = ProviderDiagnostics::diagnose(ConfigurationError(ConfigurationError::Kind::missingAPIKey));
        return std::nullopt;
    }
    return ResolvedProviderConfiguration{ProviderDefinition::definition(form.id), form.baseURL, form.model,
                                         key};
}

void SettingsWindow::testConnection()
{
    if (m_testing) {
        return;
    }
    clearMarks();
    ProviderDiagnosis failure;
    const auto configuration = formConfiguration(&failure);
    if (!configuration) {
        showDiagnosis(m_testResult, failure);
        return;
    }
    const int generation = ++m_testGeneration;
    m_testAnswer.clear();
    m_testing = true;
    updateBusyButtons();
    showResult(m_testResult, QStringLiteral("正在发送测试请求…"), Tone::info);
    QPointer<SettingsWindow> self(this);
    try {
        m_client->stream(
            *configuration, testSystemPrompt, {ConversationMessage::user(testQuestion)},
            [self, generation](const QString& delta) {
                if (self && generation == self->m_testGeneration) {
                    self->m_testAnswer += delta;
                }
            },
            [self, generation](const StreamResult& result) {
                if (self && generation == self->m_testGeneration) {
                    self->finishTest(result.ok()
                                         ? std::nullopt
                                         : std::optional(ProviderDiagnostics::diagnose(result.failure())));
                }
            });
        if (m_testing) {
            m_testDeadline->start();
        }
    } catch (const ConfigurationError& error) {
        finishTest(ProviderDiagnostics::diagnose(error));
    } catch (const LLMClientError& error) {
        finishTest(ProviderDiagnostics::diagnose(error));
    }
}

void SettingsWindow::finishTest(const std::optional<ProviderDiagnosis>& failure)
{
    m_testDeadline->stop();
    m_testing = false;
    updateBusyButtons();
    if (failure) {
        showDiagnosis(m_testResult, *failure);
        return;
    }
    showResult(m_testResult,
               QStringLiteral("连接成功，模型回复：“") + firstWords(m_testAnswer) + QStringLiteral("”"),
               Tone::success);
}

void SettingsWindow::fetchModels()
{
    if (m_fetchingModels) {
        return;
    }
    clearMarks();
    ProviderDiagnosis failure;
    const auto configuration = formConfiguration(&failure);
    if (!configuration) {
        showDiagnosis(m_modelListResult, failure);
        return;
    }
    m_fetchingModels = true;
    updateBusyButtons();
    showResult(m_modelListResult, QStringLiteral("正在获取模型列表…"), Tone::info);
    QPointer<SettingsWindow> self(this);
    const QString providerID = configuration->definition.id;
    ModelCatalog::fetch(
        *configuration,
        [self, providerID](const ModelCatalog::ModelListResult& result) {
            if (!self) {
                return;
            }
            self->m_fetchingModels = false;
            self->updateBusyButtons();
            if (providerID != self->m_loadedProviderID) {
                return; // the user moved on to another service meanwhile
            }
            if (!result.ok()) {
                self->showDiagnosis(self->m_modelListResult, ProviderDiagnostics::diagnose(result.failure()));
                return;
            }
            self->m_modelCompletions->setStringList(result.value());
            const QString summary =
                ModelCatalog::listSummary(result.value(), self->m_model->text().trimmed());
            const bool listed = result.value().contains(self->m_model->text().trimmed());
            self->showResult(self->m_modelListResult, summary, listed ? Tone::success : Tone::warning);
        },
        m_collaborators.addressPolicy);
}

void SettingsWindow::repairKeychainAccess()
{
    clearMarks();
    const QString name = ProviderDefinition::definition(m_loadedProviderID).title;
    try {
        if (m_collaborators.keychain->repairAccess(m_loadedProviderID)) {
            showResult(m_testResult,
                       QStringLiteral("已重新写入「%1」的 API Key，钥匙串授权已修复。").arg(name),
                       Tone::success);
        } else {
            showResult(m_testResult, QStringLiteral("「%1」还没有保存 API Key，无需修复。").arg(name),
                       Tone::info);
        }
    } catch (const KeychainError& error) {
        showDiagnosis(m_testResult, ProviderDiagnostics::diagnose(error));
    }
    refreshKeyStatus();
}

void SettingsWindow::refreshBridgeStatus()
{
    const BridgeDiagnosis diagnosis =
        BridgeDiagnostics::diagnoseCurrent(m_requestStore.isBridgeActive(bridgeMaximumAge));
    m_bridgeStatus->setText(diagnosis.statusText());
    m_bridgeAdvice->setText(diagnosis.advice());
}

void SettingsWindow::repairBridge()
{
    if (m_repairingBridge) {
        return;
    }
    m_repairingBridge = true;
    m_repairDeadline = QDateTime::currentMSecsSinceEpoch() / 1000.0 + bridgeRepairTimeout;
    updateBusyButtons();
    tick();
    QPointer<SettingsWindow> self(this);
    BridgeRepair::attempt(m_requestStore, bridgeRepairTimeout, [self](const BridgeDiagnosis& diagnosis) {
        if (!self) {
            return;
        }
        self->m_repairingBridge = false;
        self->updateBusyButtons();
        self->m_bridgeStatus->setText(diagnosis.statusText());
        self->m_bridgeAdvice->setText(diagnosis.advice());
        if (diagnosis.kind == BridgeDiagnosis::Kind::connected) {
            self->showResult(self->m_bridgeMessage, QStringLiteral("修复完成，Chrome 已连接。"),
                             Tone::success);
        } else {
            self->showResult(self->m_bridgeMessage,
                             QStringLiteral("等待结束，仍未连上，请按上面的提示处理。"), Tone::warning);
        }
    });
}

void SettingsWindow::installExtension()
{
    const std::optional<QString> folder = BundledExtension::folderURL();
    if (!folder) {
        showResult(m_bridgeMessage, QStringLiteral("没有找到随应用附带的扩展目录，请重新安装澜镜后再试。"),
                   Tone::error);
        return;
    }
    QApplication::clipboard()->setText(QStringLiteral("chrome://extensions/"));
    const bool opened = m_collaborators.openURL && m_collaborators.openURL(QUrl::fromLocalFile(*folder));
    const QString native = QDir::toNativeSeparators(*folder);
    showResult(m_bridgeMessage,
               (opened ? QStringLiteral("已在文件管理器中打开扩展目录，")
                       : QStringLiteral("扩展目录在 ") + native + QStringLiteral("，")) +
                   QStringLiteral(
                       "并把 chrome://extensions/ 复制到了剪贴板。请在 Chrome 地址栏粘贴打开，开启右上角的"
                       "「开发者模式」，点「加载已解压的扩展程序」，选择这个目录：") +
                   native,
               Tone::info);
}

void SettingsWindow::tick()
{
    if (m_repairingBridge) {
        const double left = m_repairDeadline - QDateTime::currentMSecsSinceEpoch() / 1000.0;
        showResult(
            m_bridgeMessage,
            QStringLiteral("正在修复连接，等待 Chrome（%1 秒）…").arg(std::max(0, int(std::ceil(left)))),
            Tone::info);
        return;
    }
    if (++m_ticks % bridgeRefreshTicks == 0) {
        refreshBridgeStatus();
    }
}

void SettingsWindow::updateBusyButtons()
{
    m_test->setEnabled(!m_testing);
    m_test->setText(m_testing ? QStringLiteral("正在测试…") : QStringLiteral("测试连接"));
    m_fetchModels->setEnabled(!m_fetchingModels);
    m_repairBridge->setEnabled(!m_repairingBridge);
}

QWidget* SettingsWindow::fieldWidget(ProviderField field) const
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

bool SettingsWindow::isMarked(const QWidget* field)
{
    return field && field->property(markProperty).toBool();
}

void SettingsWindow::markField(ProviderField field)
{
    QWidget* widget = fieldWidget(field);
    widget->setProperty(markProperty, true);
    QPalette palette = this->palette();
    palette.setColor(QPalette::Base, toneColours(Tone::error, isDark(palette)).background);
    widget->setPalette(palette);
}

void SettingsWindow::clearMarks()
{
    for (const ProviderField field : allCases<ProviderField>()) {
        QWidget* widget = fieldWidget(field);
        if (isMarked(widget)) {
            widget->setProperty(markProperty, false);
            widget->setPalette(QPalette());
        }
    }
}

void SettingsWindow::focusField(ProviderField field)
{
    m_tabs->setCurrentWidget(m_apiPage);
    markField(field);
    QWidget* widget = fieldWidget(field);
    widget->setFocus(Qt::OtherFocusReason);
    if (auto* edit = qobject_cast<QLineEdit*>(widget)) {
        edit->selectAll();
    }
}

void SettingsWindow::showDiagnosis(QLabel* label, const ProviderDiagnosis& diagnosis)
{
    showResult(label, diagnosis.message(), Tone::error);
    if (diagnosis.field) {
        focusField(*diagnosis.field);
    }
}

void SettingsWindow::showResult(QLabel* label, const QString& message, Tone tone)
{
    QPalette palette = this->palette();
    palette.setColor(QPalette::WindowText, tone == Tone::info
                                               ? this->palette().color(QPalette::WindowText)
                                               : toneColours(tone, isDark(this->palette())).text);
    label->setPalette(palette);
    label->setForegroundRole(QPalette::WindowText);
    label->setProperty("tone", int(tone));
    label->setText(message);
    label->show();
}

void SettingsWindow::showBanner(const QString& message, Tone tone)
{
    const ToneColours colours = toneColours(tone, isDark(palette()));
    QPalette palette = this->palette();
    palette.setColor(QPalette::Window, colours.background);
    palette.setColor(QPalette::WindowText, colours.text);
    m_banner->setPalette(palette);
    m_banner->setProperty("tone", int(tone));
    m_banner->setText(message);
    m_banner->show();
}

void SettingsWindow::hideBanner()
{
    m_banner->hide();
    m_banner->clear();
}

void SettingsWindow::present(const QString& message, Tone tone, std::optional<ProviderField> field)
{
    if (!isVisible()) {
        loadFromStore();
        hideBanner();
    }
    if (!message.isEmpty()) {
        showBanner(message, tone);
    }
    show();
    raise();
    activateWindow();
    if (field) {
        focusField(*field);
    }
}

void SettingsWindow::showEvent(QShowEvent* event)
{
    QWidget::showEvent(event);
    refreshBridgeStatus();
    m_ticker->start();
}

void SettingsWindow::hideEvent(QHideEvent* event)
{
    QWidget::hideEvent(event);
    m_ticker->stop();
}

bool SettingsWindow::eventFilter(QObject* watched, QEvent* event)
{
    // A click into the field of a stored key selects the stand-in, so typing replaces it.
    if (watched == m_apiKey && event->type() == QEvent::FocusIn && !m_keyEdited &&
        m_apiKey->text() == storedKeyPlaceholder) {
        QTimer::singleShot(0, m_apiKey, [this] { m_apiKey->selectAll(); });
    }
    return QWidget::eventFilter(watched, event);
}

void SettingsWindow::changeEvent(QEvent* event)
{
    QWidget::changeEvent(event);
    if (event->type() != QEvent::PaletteChange) {
        return;
    }
    // Tone colours are picked for a light or a dark palette; a theme switch picks them again.
    if (m_banner->isVisible()) {
        showBanner(m_banner->text(), Tone(m_banner->property("tone").toInt()));
    }
    for (QLabel* label : {m_testResult, m_modelListResult, m_bridgeMessage}) {
        if (label->isVisibleTo(this)) {
            showResult(label, label->text(), Tone(label->property("tone").toInt()));
        }
    }
    for (const ProviderField field : allCases<ProviderField>()) {
        if (isMarked(fieldWidget(field))) {
            markField(field);
        }
    }
}

} // namespace velnora
