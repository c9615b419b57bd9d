#include "app/AppDelegate.h"

#include "app/AboutWindow.h"
#include "app/AccessibilityBus.h"
#include "app/ControlBus.h"
#include "app/ControlService.h"
#include "app/FeedbackPresenter.h"
#include "app/FirstRunHint.h"
#include "app/GraphemeText.h"
#include "app/LaunchAtLogin.h"
#include "app/TerminationSignals.h"
#include "base/ModeResult.h"
#include "base/ProcessArguments.h"
#include "bridge/BridgeDiagnostics.h"
#include "bridge/BridgeRepair.h"
#include "bridge/BrowserProviderSync.h"
#include "bridge/FileSystemError.h"
#include "bridge/NativeHostInstaller.h"
#include "capture/CapturePlatform.h"
#include "capture/SelectionReadError.h"
#include "config/KeyReadProcess.h"
#include "flow/ExplanationCoordinator.h"
#include "llm/LLMClient.h"
#include "llm/ProviderFailure.h"
#include "overlay/ExplanationPanel.h"
#include "overlay/FontCaches.h"
#include "overlay/OverlayPanelController.h"
#include "updates/ProductUpdates.h"

#include <QApplication>
#include <QCursor>
#include <QDBusConnection>
#include <QIcon>
#include <QPainter>
#include <QPainterPath>
#include <QPixmap>
#include <QSystemTrayIcon>
#include <malloc.h>

namespace velnora {

namespace {

constexpr double shortFeedback = 1.4;

// The tray's picture: the theme's icon when installed, else the packaged icon's mirror over two waves,
// drawn on its 256-unit grid. No glyph: a character would map a whole CJK font file for the icon.
QIcon trayIcon()
{
    QIcon themed = QIcon::fromTheme(QStringLiteral("velnora"));
    if (!themed.isNull()) {
        return themed;
    }
    const QColor deep(0x15, 0x5d, 0x6b);
    QIcon drawn;
    for (const int size : {16, 22, 24, 32, 48, 64}) {
        QPixmap pixmap(size, size);
        pixmap.fill(Qt::transparent);
        QPainter painter(&pixmap);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.scale(size / 256.0, size / 256.0);
        painter.setPen(Qt::NoPen);
        painter.setBrush(QColor(0x1f, 0x7a, 0x8c));
        painter.drawRoundedRect(QRectF(8, 8, 240, 240), 54, 54);
        painter.setBrush(deep);
        painter.drawEllipse(QPointF(128, 112), 78, 78);
        painter.setBrush(QColor(0xe8, 0xf6, 0xf8));
        painter.drawEllipse(QPointF(128, 112), 70, 70);
        QPainterPath glass;
        glass.addEllipse(QPointF(128, 112), 70, 70);
        painter.setClipPath(glass);
        for (const auto& [y, colour] :
             {std::pair{122.0, QColor(0x1f, 0x7a, 0x8c)}, {152.0, QColor(0x2a, 0x93, 0xa6)}}) {
            QPainterPath wave(QPointF(44, y));
            for (int crest = 0; crest < 4; ++crest) {
                const double x = 44 + crest * 42;
                wave.quadTo(x + 21, y + (crest % 2 == 0 ? -18 : 18), x + 42, y);
            }
            painter.strokePath(wave, QPen(colour, 11, Qt::SolidLine, Qt::RoundCap));
        }
        painter.setClipping(false);
        painter.setBrush(deep);
        painter.drawPolygon(
            QPolygonF({QPointF(104, 192), QPointF(152, 192), QPointF(144, 214), QPointF(112, 214)}));
        painter.end();
        drawn.addPixmap(pixmap);
    }
    return drawn;
}

} // namespace

AppDelegate::AppDelegate(QObject* parent) : AppDelegate(Options(), parent) {}

AppDelegate::AppDelegate(Options options, QObject* parent)
    : QObject(parent), m_options(std::move(options)), m_requestStore(m_options.dataDirectory),
      m_configuration(m_options.settingsPath ? std::make_unique<ConfigurationStore>(*m_options.settingsPath)
                                             : std::make_unique<ConfigurationStore>())
{
    m_hotKey = new GlobalHotKey(this);
    connect(m_hotKey, &GlobalHotKey::triggerReported, this, [this] {
        m_hotKeyRegistered = true;
        m_hotKeyFailure.clear();
    });
    connect(m_hotKey, &GlobalHotKey::failed, this, [this](const QString& message) {
        m_hotKeyRegistered = false;
        m_hotKeyFailure = message;
        showFeedback(message, 6.0);
    });
    m_control = new ControlService(this);
    new BrowserProviderSync(*m_configuration, m_requestStore, this);
    m_accessibilityMonitorTimer.setInterval(m_options.accessibilityPollMs);
    connect(&m_accessibilityMonitorTimer, &QTimer::timeout, this, [this] {
        m_accessibilityPolls += 1;
        if (m_accessibilityTrusted && m_accessibilityTrusted()) {
            m_accessibilityMonitorTimer.stop();
            m_trusted = CapturePlatform::isTrusted();
            showFeedback(QStringLiteral("权限已开启"), shortFeedback);
            writeRuntimeStatus();
        } else if (m_accessibilityPolls * m_options.accessibilityPollMs >=
                   m_options.accessibilityPollLimitMs) {
            m_accessibilityMonitorTimer.stop();
        }
    });
    m_runtimeStatusTimer.setInterval(m_options.runtimeStatusIntervalMs);
    connect(&m_runtimeStatusTimer, &QTimer::timeout, this, &AppDelegate::writeRuntimeStatus);
    m_chromeCountdown.setInterval(1000);
    connect(&m_chromeCountdown, &QTimer::timeout, this, [this] {
        m_chromeSecondsLeft = std::max(0, m_chromeSecondsLeft - 1);
        showFeedback(QStringLiteral("等待 Chrome（%1 秒）").arg(m_chromeSecondsLeft), 1.2);
    });
}

AppDelegate::~AppDelegate()
{
    // The coordinator talks to the card and the client: it goes before them.
    delete m_explanationCoordinator;
    m_explanationCoordinator = nullptr;
    if (m_statusItem) {
        m_statusItem->hide();
    }
    delete m_settingsController.data();
    delete m_aboutWindow.data();
}

AppDelegate::InstanceClaim AppDelegate::claimInstance()
{
    if (m_control->start()) {
        return InstanceClaim::first;
    }
    const QDBusConnection bus = QDBusConnection::sessionBus();
    return bus.isConnected() ? InstanceClaim::another : InstanceClaim::noBus;
}

void AppDelegate::applicationDidFinishLaunching(const ProcessArguments& arguments)
{
    // 1. Tray application: every window is a tool window and closing one does not quit.
    QApplication::setQuitOnLastWindowClosed(false);
    // 2. The explain service is the control bus's ExplainSelection.
    connect(m_control, &ControlService::explainRequested, this, &AppDelegate::explainRequested);
    // 3. Updates: checked on demand only, see updates().
    // 4.
    buildStatusMenu();
    // 5.
    installHostManifest();
    // 6.
    registerHotKey();
    // 7.
    m_trusted = CapturePlatform::isTrusted();
    writeRuntimeStatus();
    m_runtimeStatusTimer.start();
    // 8.
    trackActiveApplication();
    connect(m_control, &ControlService::notificationReceived, this, &AppDelegate::handleNotification);
    // Quitting from the menu, by SIGTERM or by Ctrl+C goes through the same clean-up.
    connect(qApp, &QCoreApplication::aboutToQuit, this, &AppDelegate::prepareToQuit);
    connect(new TerminationSignals(this), &TerminationSignals::received, qApp, &QCoreApplication::quit);
    // 9.
    if (arguments.has(QStringLiteral("--preview-overlay"))) {
        QMetaObject::invokeMethod(
            this, [this] { explanationCoordinator()->showInterfacePreview(); }, Qt::QueuedConnection);
    }
    // 10. Without a tray the settings window is the only place the user can be told how to go on.
    if (const std::optional<QString> message =
            FirstRunHint::takeLaunchMessage(*m_configuration, QSystemTrayIcon::isSystemTrayAvailable(),
                                            HotKeyChoice::fromID(m_configuration->globalHotKeyID()).title)) {
        openSettings(*message);
    }
}

void AppDelegate::buildStatusMenu()
{
    m_statusMenu = std::make_unique<StatusMenu>();
    StatusMenu* menu = m_statusMenu.get();
    connect(menu, &QMenu::aboutToShow, this, &AppDelegate::refreshExplainItem);
    // Acting once the menu has closed, so the reader sees the application the user worked in.
    connect(menu->explainItem(), &QAction::triggered, this,
            [this] { QMetaObject::invokeMethod(this, &AppDelegate::explainFromMenu, Qt::QueuedConnection); });
    for (auto it = menu->modeMenuItems().cbegin(); it != menu->modeMenuItems().cend(); ++it) {
        const ExecutionMode mode = it.key();
        connect(it.value(), &QAction::triggered, this, [this, mode] { selectMode(mode); });
    }
    for (auto it = menu->hotKeyMenuItems().cbegin(); it != menu->hotKeyMenuItems().cend(); ++it) {
        const QString id = it.key();
        connect(it.value(), &QAction::triggered, this, [this, id] { selectHotKey(id); });
    }
    connect(menu->accessibilityItem(), &QAction::triggered, this, &AppDelegate::checkAccessibility);
    connect(menu->chromeItem(), &QAction::triggered, this, &AppDelegate::checkChrome);
    connect(menu->settingsItem(), &QAction::triggered, this, [this] { openSettings(); });
    connect(menu->aboutItem(), &QAction::triggered, this, &AppDelegate::showAbout);
    connect(menu->updatesItem(), &QAction::triggered, this, &AppDelegate::checkForUpdates);
    connect(menu->launchAtLoginItem(), &QAction::triggered, this, &AppDelegate::toggleLaunchAtLogin);
    connect(menu->quitItem(), &QAction::triggered, qApp, &QCoreApplication::quit);

    menu->setCurrentMode(m_configuration->executionMode());
    menu->setCurrentHotKey(HotKeyChoice::fromID(m_configuration->globalHotKeyID()).id);
    connect(m_hotKey, &GlobalHotKey::conflictChanged, menu, &StatusMenu::setHotKeyConflict);
    connect(m_hotKey, &GlobalHotKey::triggerReported, menu, &StatusMenu::setReportedTrigger);
    menu->launchAtLoginItem()->setChecked(LaunchAtLogin::isEnabled());
    menu->setExplainItem(StatusMenu::explainMenuItemTitle(std::nullopt, std::nullopt));
    // The settings window may change the mode.
    connect(m_configuration.get(), &ConfigurationStore::configurationDidChange, this,
            [this] { m_statusMenu->setCurrentMode(m_configuration->executionMode()); });

    m_statusItem = new QSystemTrayIcon(trayIcon(), this);
    m_statusItem->setToolTip(FeedbackPresenter::restingToolTip());
    m_statusItem->setContextMenu(menu);
    // A left click opens the same menu: the icon has nothing else to do.
    connect(m_statusItem, &QSystemTrayIcon::activated, this,
            [this](QSystemTrayIcon::ActivationReason reason) {
                if (reason == QSystemTrayIcon::Trigger) {
                    m_statusMenu->popup(QCursor::pos());
                }
            });
    m_feedback = new FeedbackPresenter(m_statusItem, this);
    m_statusItem->show();
}

void AppDelegate::installHostManifest()
{
    try {
        NativeHostInstaller::installForAllBrowsers();
    } catch (const FileSystemError& error) {
        ModeResult::printErrorLine(QStringLiteral("native-host-install: ") + error.description());
        showFeedback(QStringLiteral("Chrome 连接配置失败"), shortFeedback);
    }
}

QString AppDelegate::hotKeyTakenMessage(const HotKeyChoice& choice)
{
    return QStringLiteral("快捷键 ") + choice.title + QStringLiteral(" 已被其他应用占用，请在菜单栏中更换。");
}

QString AppDelegate::hotKeyProblemMessage(const HotKeyChoice& choice) const
{
    if (!m_hotKeyFailure.isEmpty()) {
        return m_hotKeyFailure;
    }
    const QString unavailable = m_hotKey->unavailableMessage();
    return unavailable.isEmpty() ? hotKeyTakenMessage(choice) : unavailable;
}

void AppDelegate::trackActiveApplication()
{
    m_activeApplications = CapturePlatform::createActiveApplicationTracker();
    if (!m_activeApplications) {
        return;
    }
    const auto remember = [this](std::optional<qint64> process) {
        if (process && *process != QCoreApplication::applicationPid()) {
            m_lastActiveApplicationPID = process;
        }
    };
    remember(m_activeApplications->activeProcess());
    m_activeApplications->watch(remember);
}

void AppDelegate::prepareToQuit()
{
    m_hotKey->release();
    m_selectionReader.handOffClipboard();
}

void AppDelegate::registerHotKey()
{
    const HotKeyChoice choice = HotKeyChoice::fromID(m_configuration->globalHotKeyID());
    m_hotKeyRegistered = m_hotKey->registerChoice(choice, [this] { explainCurrentSelection(); });
    if (!m_hotKeyRegistered) {
        showFeedback(hotKeyProblemMessage(choice), 4.0);
    }
}

void AppDelegate::writeRuntimeStatus()
{
    // Status files are best effort: the host only reports what it finds.
    try {
        m_requestStore.writeAppStatus(m_trusted);
    } catch (const FileSystemError&) {
    }
}

void AppDelegate::showFeedback(const QString& text, double durationSeconds)
{
    if (m_feedback) {
        m_feedback->show(text, durationSeconds);
    }
}

ExplanationCoordinator* AppDelegate::explanationCoordinator()
{
    if (!m_explanationCoordinator) {
        m_client = std::make_unique<LLMClient>();
        m_client->setFetchWorker(m_options.helperProgram);
        m_overlay = std::make_unique<OverlayPanelController>();
        m_overlay->setFixedPlacement(CapturePlatform::isWaylandSession());
        m_explanationCoordinator =
            new ExplanationCoordinator(*m_configuration, m_keychain, *m_client, *m_overlay);
        connect(m_explanationCoordinator, &ExplanationCoordinator::fixConfigurationRequested, this,
                [this](ProviderField field) { openSettings({}, Tone::warning, field); });
        // After the closing has run its course, not inside it.
        connect(m_overlay->panel(), &ExplanationPanel::closed, this,
                [this] { QTimer::singleShot(0, this, &AppDelegate::releaseClosedCard); });
    }
    return m_explanationCoordinator;
}

void AppDelegate::releaseClosedCard()
{
    if (!m_overlay || m_overlay->panel()->isVisible()) {
        return; // shown again in the meantime
    }
    // A closed card's conversation is over: its windows, the client and the fonts go, and the heap
    // they used goes back to the system instead of staying with an idle tray icon.
    delete m_explanationCoordinator;
    m_explanationCoordinator = nullptr;
    m_overlay.reset();
    m_client.reset();
    FontCaches::release();
    malloc_trim(0);
}

void AppDelegate::route(const SelectionResult& selection)
{
    if (GraphemeText::count(selection.text, maximumSelectionLength + 1) > maximumSelectionLength) {
        showFeedback(SelectionReadError(SelectionReadError::Case::selectionTooLong).description(), 2.5);
        return;
    }
    if (m_configuration->executionMode() == ExecutionMode::api) {
        routeToCard(selection);
    } else {
        routeToBrowser(selection);
    }
}

void AppDelegate::routeToCard(const SelectionResult& selection)
{
    // A key not read yet this run may sit behind a locked keyring, whose prompt can stay up for a
    // minute: it is read without waiting here, so that the tray, the hot key and the menu keep working.
    const QString providerID = m_configuration->apiProviderID();
    if (m_keychain.isCached(providerID)) {
        explainInCard(selection);
        return;
    }
    if (m_readingKey) {
        showFeedback(QStringLiteral("正在读取钥匙串，请先在弹出的窗口里解锁"), 2.5);
        return;
    }
    m_readingKey = true;
    // In a process of its own, which also keeps the keyring libraries out of this long-lived one.
    KeyReadProcess::start(this, m_options.helperProgram, m_keychain.service(), providerID,
                          [this, selection, providerID](const KeychainReply& reply) {
                              m_readingKey = false;
                              if (reply.error) {
                                  showCardFailure(*reply.error);
                                  return;
                              }
                              if (reply.key) {
                                  m_keychain.rememberKey(providerID, *reply.key);
                              }
                              explainInCard(selection);
                          });
}

void AppDelegate::explainInCard(const SelectionResult& selection)
{
    std::optional<ProviderFailure> failure;
    try {
        explanationCoordinator()->explain(selection);
    } catch (const KeychainError& error) {
        failure = error;
    } catch (const ConfigurationError& error) {
        failure = error;
    }
    if (failure) {
        showCardFailure(*failure);
        return;
    }
    showFeedback(QStringLiteral("正在解释"));
}

// No card without a usable key or configuration: the settings open on the field to fix.
void AppDelegate::showCardFailure(const ProviderFailure& failure)
{
    openSettings(describe(failure), Tone::error, ProviderDiagnostics::diagnose(failure).field);
}

void AppDelegate::routeToBrowser(const SelectionResult& selection)
{
    const BrowserProvider provider = m_configuration->browserProvider();
    BridgeRequest request;
    try {
        request = m_requestStore.enqueue(BridgeRequestType::explainText, selection.text, rawValue(provider),
                                         depthInstruction(m_configuration->explanationDepth()));
    } catch (const FileSystemError& error) {
        showFeedback(QStringLiteral("无法写入请求队列：") + error.description(), 3.0);
        return;
    }
    ensureChromeRuns();
    scheduleDeliveryCheck(request.id);
    showFeedback(QStringLiteral("正在发送到 ") + browserProviderTitle(provider));
    Q_EMIT browserRequestQueued(request.id);
}

void AppDelegate::ensureChromeRuns()
{
    if (!BridgeDiagnostics::isChromeRunning()) {
        BridgeRepair::launchChrome();
    }
}

QString AppDelegate::deliveryFeedback(const BridgeDiagnosis& diagnosis)
{
    switch (diagnosis.kind) {
    case BridgeDiagnosis::Kind::chromeNotRunning:
        return diagnosis.browserName() + QStringLiteral(" 没有运行");
    case BridgeDiagnosis::Kind::sandboxedBrowser:
        return QStringLiteral("沙盒中的浏览器连不上澜镜");
    case BridgeDiagnosis::Kind::extensionSilent:
        return diagnosis.browserName() + (diagnosis.concernsExtensionInstall()
                                              ? QStringLiteral(" 扩展未安装")
                                              : QStringLiteral(" 扩展未连接"));
    case BridgeDiagnosis::Kind::manifestMissing:
    case BridgeDiagnosis::Kind::manifestPathBroken:
    case BridgeDiagnosis::Kind::manifestOriginMismatch:
        return diagnosis.browserName() + QStringLiteral(" 连接配置需修复");
    case BridgeDiagnosis::Kind::connected:
        break; // the host is alive and will take the request on its next scan
    }
    return {};
}

void AppDelegate::scheduleDeliveryCheck(const QString& requestID)
{
    if (!RequestStore::isValidRequestIdentifier(requestID)) {
        return;
    }
    QTimer::singleShot(m_options.firstDeliveryCheckMs, this, [this, requestID] {
        if (m_requestStore.contains(requestID) && !m_requestStore.isBridgeActive(heartbeatMaximumAge)) {
            ensureChromeRuns();
        }
    });
    QTimer::singleShot(m_options.secondDeliveryCheckMs, this, [this, requestID] {
        if (!m_requestStore.contains(requestID)) {
            return;
        }
        const BridgeDiagnosis diagnosis =
            BridgeDiagnostics::diagnoseCurrent(m_requestStore.isBridgeActive(heartbeatMaximumAge));
        if (const QString text = deliveryFeedback(diagnosis); !text.isEmpty()) {
            showFeedback(text, 3.0);
        }
    });
}

void AppDelegate::explainCurrentSelection()
{
    if (m_selectionReader.isReading()) {
        showFeedback(SelectionReadError(SelectionReadError::Case::noSelection).description(), 2.5);
        return;
    }
    // Whatever the read gives, text is shown next: the font list is read on another core meanwhile.
    FontCaches::prepare();
    SelectionResult selection;
    try {
        selection = m_selectionReader.readSelection();
    } catch (const SelectionReadError& error) {
        if (error.errorCase() == SelectionReadError::Case::accessibilityPermissionRequired) {
            showFeedback(QStringLiteral("请授权辅助功能"), shortFeedback);
            startAccessibilityMonitor([] { return CapturePlatform::isTrusted(); });
            openSettings(
                QStringLiteral(
                    "跨应用自动取词需要辅助功能权限；授权前可先 Ctrl+C 复制，再用菜单栏的“解释剪贴板”。"),
                Tone::warning);
        } else {
            showFeedback(error.description(), 2.5);
        }
        return;
    }
    route(selection);
}

void AppDelegate::refreshExplainItem()
{
    // The tray menu does not take the activation on X11, so the peek asks the application that
    // still holds the active window; the last one seen is preferred when known.
    m_previewedSelection = m_selectionReader.peekSelection(m_lastActiveApplicationPID);
    std::optional<QString> clipboard;
    try {
        clipboard = m_selectionReader.clipboardText().text;
    } catch (const SelectionReadError&) {
    }
    const StatusMenu::ExplainItem item = StatusMenu::explainMenuItemTitle(
        m_previewedSelection ? std::optional<QString>(m_previewedSelection->text) : std::nullopt, clipboard);
    m_explainSource = item.source;
    m_statusMenu->setExplainItem(item);
}

void AppDelegate::explainFromMenu()
{
    if (m_explainSource == ExplainSource::clipboard) {
        try {
            route(m_selectionReader.clipboardText());
        } catch (const SelectionReadError& error) {
            showFeedback(error.description(), 2.5);
        }
        return;
    }
    explainCurrentSelection();
}

void AppDelegate::selectMode(ExecutionMode mode)
{
    m_configuration->setExecutionMode(mode);
    m_statusMenu->setCurrentMode(mode);
    showFeedback(mode == ExecutionMode::api ? QStringLiteral("API 悬浮模式")
                                            : QStringLiteral("网页会话模式"));
}

void AppDelegate::selectHotKey(const QString& choiceID)
{
    const HotKeyChoice choice = HotKeyChoice::fromID(choiceID);
    m_configuration->setGlobalHotKeyID(choice.id);
    m_statusMenu->setCurrentHotKey(choice.id);
    m_hotKeyRegistered = m_hotKey->registerChoice(choice, [this] { explainCurrentSelection(); });
    if (m_hotKeyRegistered && m_hotKey->desktopOwnsKey()) {
        showFeedback(QStringLiteral("快捷键由桌面管理：请在系统设置的快捷键中更换“解释选中内容”。"), 4.0);
        return;
    }
    showFeedback(m_hotKeyRegistered ? QStringLiteral("全局快捷键：") + choice.title
                                    : hotKeyProblemMessage(choice),
                 m_hotKeyRegistered ? 1.8 : 4.0);
}

void AppDelegate::toggleLaunchAtLogin()
{
    const bool wanted = !LaunchAtLogin::isEnabled();
    if (const std::optional<QString> failure =
            LaunchAtLogin::setEnabled(wanted, NativeHostInstaller::currentExecutablePath())) {
        showFeedback(QStringLiteral("无法修改登录启动设置：") + *failure, 3.0);
    }
    m_statusMenu->launchAtLoginItem()->setChecked(LaunchAtLogin::isEnabled());
}

void AppDelegate::startAccessibilityMonitor(std::function<bool()> trusted)
{
    m_accessibilityTrusted = std::move(trusted);
    m_accessibilityPolls = 0;
    m_accessibilityMonitorTimer.start();
}

void AppDelegate::checkAccessibility()
{
    // Capture itself needs only the display; reading focused text needs the accessibility switch on.
    if (CapturePlatform::isTrusted() && AccessibilityBus::isEnabled().value_or(false)) {
        showFeedback(QStringLiteral("权限正常"));
        return;
    }
    AccessibilityBus::enable();
    showFeedback(QStringLiteral("请授权辅助功能"));
    startAccessibilityMonitor(
        [] { return CapturePlatform::isTrusted() && AccessibilityBus::isEnabled().value_or(false); });
}

void AppDelegate::checkChrome()
{
    if (m_chromeCheckRunning) {
        return;
    }
    m_chromeCheckRunning = true;
    showFeedback(QStringLiteral("正在连接 Chrome"), 1.2);
    m_chromeSecondsLeft = m_options.chromeWaitSeconds;
    m_chromeCountdown.start();
    QPointer<AppDelegate> self(this);
    BridgeRepair::attempt(m_requestStore, m_options.chromeWaitSeconds,
                          [self](const BridgeDiagnosis& diagnosis) {
                              if (!self) {
                                  return;
                              }
                              self->m_chromeCheckRunning = false;
                              self->m_chromeCountdown.stop();
                              if (diagnosis.kind == BridgeDiagnosis::Kind::connected) {
                                  self->showFeedback(diagnosis.browserName() + QStringLiteral(" 已连接"));
                              } else {
                                  self->showFeedback(deliveryFeedback(diagnosis), 3.0);
                              }
                          });
}

void AppDelegate::openSettings(const QString& message, Tone tone, std::optional<ProviderField> field)
{
    if (!m_settingsController) {
        // Created when opened and deleted when closed: nothing in it outlives the window.
        SettingsWindow::Collaborators collaborators =
            SettingsWindow::Collaborators::standard(m_configuration.get(), &m_keychain);
        collaborators.requestStore = m_requestStore;
        collaborators.applyHotKey = [this](const HotKeyChoice& choice) -> std::optional<QString> {
            selectHotKey(choice.id);
            return m_hotKeyRegistered ? std::nullopt : std::optional(hotKeyProblemMessage(choice));
        };
        collaborators.holdHotKey = [this](bool recording) {
            if (recording) {
                m_hotKey->release();
            } else {
                // Taken back quietly: nothing changed for the user.
                const HotKeyChoice saved = HotKeyChoice::fromID(m_configuration->globalHotKeyID());
                m_hotKeyRegistered = m_hotKey->registerChoice(saved, [this] { explainCurrentSelection(); });
            }
        };
        collaborators.hotKeyProblem = [this]() -> std::optional<QString> {
            if (m_hotKeyRegistered) {
                return std::nullopt;
            }
            return hotKeyProblemMessage(HotKeyChoice::fromID(m_configuration->globalHotKeyID()));
        };
        m_settingsController = new SettingsWindow(std::move(collaborators));
        connect(m_settingsController, &SettingsWindow::aboutRequested, this, &AppDelegate::showAbout);
        connect(m_settingsController, &SettingsWindow::updatesRequested, this, &AppDelegate::checkForUpdates);
        connect(m_settingsController, &SettingsWindow::launchAtLoginChanged, this,
                [this](bool enabled) { m_statusMenu->launchAtLoginItem()->setChecked(enabled); });
    }
    m_settingsController->present(message, tone, field);
}

ProductUpdates* AppDelegate::updates()
{
    // The network stack is loaded only when the user asks about updates.
    if (!m_updates) {
        m_updates = new ProductUpdates(this);
        connect(m_updates, &ProductUpdates::applicationCheckingChanged, this, [this](bool checking) {
            if (m_statusMenu) {
                m_statusMenu->updatesItem()->setEnabled(!checking);
            }
        });
    }
    return m_updates;
}

void AppDelegate::showAbout()
{
    if (!m_aboutWindow) {
        m_aboutWindow = new AboutWindow(updates());
    }
    m_aboutWindow->present();
}

void AppDelegate::checkForUpdates()
{
    showAbout();
    if (!updates()->isCheckingApplication()) {
        updates()->checkApplication();
    }
}

QString AppDelegate::translationCheckText()
{
    return QStringLiteral("Serendipity is the art of finding something good without looking for it.");
}

void AppDelegate::handleNotification(const QString& name)
{
    if (name == QLatin1String(ControlBus::previewName)) {
        explanationCoordinator()->showInterfacePreview();
    } else if (name == QLatin1String(ControlBus::pillPreviewName)) {
        explanationCoordinator()->showInterfacePreview();
        m_overlay->collapseToPill();
    } else if (name == QLatin1String(ControlBus::settingsName)) {
        openSettings();
    } else if (name == QLatin1String(ControlBus::translationSelfTestName)) {
        route(SelectionResult{translationCheckText(), std::nullopt});
    }
}

void AppDelegate::explainRequested(const QString& text)
{
    const QString trimmed = text.trimmed();
    if (trimmed.isEmpty()) {
        explainCurrentSelection();
        return;
    }
    route(SelectionResult{trimmed, std::nullopt});
}

} // namespace velnora
