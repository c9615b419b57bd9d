#include "app/settings/GeneralSettingsPage.h"

#include "app/LaunchAtLogin.h"
#include "app/settings/BrowserConnectionSection.h"
#include "config/ConfigurationStore.h"

#include <QCheckBox>
#include <QComboBox>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QSignalBlocker>
#include <QVBoxLayout>

namespace velnora {

namespace {

template <typename Enum> std::optional<Enum> selected(const QComboBox* box)
{
    return fromRawValue<Enum>(box->currentData().toString());
}

} // namespace

GeneralSettingsPage::GeneralSettingsPage(Services services, QWidget* parent)
    : SettingsPage(parent), m_services(std::move(services))
{
    m_mode = new QComboBox(this);
    m_mode->addItem(QStringLiteral("网页会话（免 Key）"), rawValue(ExecutionMode::browser));
    m_mode->addItem(QStringLiteral("悬浮卡片（API 直连）"), rawValue(ExecutionMode::api));
    m_mode->setAccessibleName(QStringLiteral("运行模式"));
    m_browserProvider = new QComboBox(this);
    for (const BrowserProvider provider : allCases<BrowserProvider>()) {
        m_browserProvider->addItem(browserProviderTitle(provider), rawValue(provider));
    }
    m_browserProvider->setAccessibleName(QStringLiteral("网页会话服务"));
    m_depth = new QComboBox(this);
    for (const ExplanationDepth depth : allCases<ExplanationDepth>()) {
        m_depth->addItem(depthTitle(depth), rawValue(depth));
    }
    m_depth->setAccessibleName(QStringLiteral("解释深度"));
    m_depthHint = new ResultLine(this, 2);
    m_depthHint->setForegroundRole(QPalette::PlaceholderText);
    connect(m_depth, &QComboBox::currentIndexChanged, this, [this] {
        const auto depth = selected<ExplanationDepth>(m_depth);
        m_depthHint->setText(depth ? depthInstruction(*depth) : QString());
    });

    auto* form = new QFormLayout;
    form->setLabelAlignment(Qt::AlignRight | Qt::AlignVCenter);
    form->setFieldGrowthPolicy(QFormLayout::AllNonFixedFieldsGrow);
    form->setHorizontalSpacing(12);
    form->addRow(labelFor(QStringLiteral("运行模式(&M)"), m_mode, this), m_mode);
    form->addRow(labelFor(QStringLiteral("网页会话服务(&W)"), m_browserProvider, this), m_browserProvider);
    form->addRow(labelFor(QStringLiteral("解释深度(&D)"), m_depth, this), m_depth);
    form->addRow(QString(), m_depthHint);

    m_hotKey = new HotKeySection(m_services.applyHotKey, m_services.holdHotKey, this);

    auto* startup = new QGroupBox(QStringLiteral("启动与关于"), this);
    m_launchAtLogin = new QCheckBox(QStringLiteral("登录时启动(&L)"), startup);
    m_launchResult = new ResultLine(startup);
    m_about = new QPushButton(QStringLiteral("关于澜镜(&B)…"), startup);
    m_updates = new QPushButton(QStringLiteral("检查更新(&U)…"), startup);
    auto* startupRow = new QHBoxLayout;
    startupRow->addWidget(m_launchAtLogin);
    startupRow->addStretch(1);
    startupRow->addWidget(m_about);
    startupRow->addWidget(m_updates);
    auto* startupLayout = new QVBoxLayout(startup);
    startupLayout->addLayout(startupRow);
    startupLayout->addWidget(m_launchResult);
    // Like the hot key, launch at login takes effect at once, as it does from the tray menu.
    connect(m_launchAtLogin, &QCheckBox::toggled, this, &GeneralSettingsPage::setLaunchAtLogin);
    connect(m_about, &QPushButton::clicked, this, &GeneralSettingsPage::aboutRequested);
    connect(m_updates, &QPushButton::clicked, this, &GeneralSettingsPage::updatesRequested);

    m_browser = new BrowserConnectionSection(m_services.requestStore, m_services.openURL, this);
    m_browser->setChosenProvider([this] {
        return selected<BrowserProvider>(m_browserProvider)
            .value_or(m_services.configuration->browserProvider());
    });

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(14, 14, 14, 14);
    layout->setSpacing(12);
    layout->addLayout(form);
    layout->addWidget(m_hotKey);
    layout->addWidget(startup);
    layout->addWidget(m_browser);
    layout->addStretch(1);

    // The tray menu changes the mode and the hot key too; an open window follows it, except for a
    // choice the user has already changed here.
    connect(m_services.configuration, &ConfigurationStore::configurationDidChange, this, [this] {
        loadChoices(false);
        const HotKeyChoice saved = HotKeyChoice::fromID(m_services.configuration->globalHotKeyID());
        if (m_hotKey->choiceBox()->currentData().toString() != saved.id && !m_hotKey->isRecording()) {
            m_hotKey->showChoice(saved);
        }
    });
}

GeneralSettingsPage::Choices GeneralSettingsPage::shownChoices() const
{
    return {selected<ExecutionMode>(m_mode), selected<BrowserProvider>(m_browserProvider),
            selected<ExplanationDepth>(m_depth)};
}

void GeneralSettingsPage::loadChoices(bool all)
{
    const ConfigurationStore& store = *m_services.configuration;
    const Choices shown = shownChoices();
    if (all || shown.mode == m_loadedChoices.mode) {
        m_mode->setCurrentIndex(m_mode->findData(rawValue(store.executionMode())));
        m_loadedChoices.mode = store.executionMode();
    }
    if (all || shown.browserProvider == m_loadedChoices.browserProvider) {
        m_browserProvider->setCurrentIndex(m_browserProvider->findData(rawValue(store.browserProvider())));
        m_loadedChoices.browserProvider = store.browserProvider();
    }
    if (all || shown.depth == m_loadedChoices.depth) {
        m_depth->setCurrentIndex(m_depth->findData(rawValue(store.explanationDepth())));
        m_loadedChoices.depth = store.explanationDepth();
    }
}

void GeneralSettingsPage::load()
{
    loadChoices(true);
    const HotKeyChoice current = HotKeyChoice::fromID(m_services.configuration->globalHotKeyID());
    const std::optional<QString> problem =
        m_services.hotKeyProblem ? m_services.hotKeyProblem() : std::nullopt;
    m_hotKey->load(current, !problem, problem.value_or(QString()));
    {
        const QSignalBlocker blocker(m_launchAtLogin);
        m_launchAtLogin->setChecked(LaunchAtLogin::isEnabled());
    }
    m_launchResult->clearMessage();
    m_browser->messageLine()->clearMessage();
}

bool GeneralSettingsPage::isModified() const
{
    const ConfigurationStore& store = *m_services.configuration;
    return shownChoices() !=
           Choices{store.executionMode(), store.browserProvider(), store.explanationDepth()};
}

void GeneralSettingsPage::save()
{
    ConfigurationStore& store = *m_services.configuration;
    if (const auto mode = selected<ExecutionMode>(m_mode); mode && *mode != store.executionMode()) {
        store.setExecutionMode(*mode);
    }
    if (const auto provider = selected<BrowserProvider>(m_browserProvider);
        provider && *provider != store.browserProvider()) {
        store.setBrowserProvider(*provider);
    }
    if (const auto depth = selected<ExplanationDepth>(m_depth); depth && *depth != store.explanationDepth()) {
        store.setExplanationDepth(*depth);
    }
    m_loadedChoices = shownChoices();
}

void GeneralSettingsPage::setLaunchAtLogin(bool enabled)
{
    const std::optional<QString> failure = LaunchAtLogin::setEnabled(enabled, m_services.executablePath);
    const bool now = LaunchAtLogin::isEnabled();
    {
        const QSignalBlocker blocker(m_launchAtLogin);
        m_launchAtLogin->setChecked(now);
    }
    if (failure) {
        m_launchResult->showMessage(QStringLiteral("无法修改登录启动设置：") + *failure, Tone::error);
    } else {
        m_launchResult->showMessage(now ? QStringLiteral("登录桌面时会自动启动澜镜。")
                                        : QStringLiteral("登录桌面时不再自动启动澜镜。"),
                                    Tone::success);
    }
    Q_EMIT launchAtLoginChanged(now);
}

} // namespace velnora
