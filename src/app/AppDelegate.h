#pragma once

#include "app/StatusMenu.h"
#include "app/settings/SettingsWindow.h"
#include "bridge/BridgeDiagnosis.h"
#include "bridge/RequestStore.h"
#include "capture/ActiveApplicationTracker.h"
#include "capture/GlobalHotKey.h"
#include "capture/SelectionReader.h"
#include "capture/SelectionResult.h"
#include "config/ConfigurationStore.h"
#include "config/KeychainStore.h"
#include "llm/ProviderFailure.h"

#include <QObject>
#include <QPointer>
#include <QTimer>
#include <functional>
#include <memory>
#include <optional>

class QSystemTrayIcon;

namespace velnora {

class AboutWindow;
class ControlService;
class ExplanationCoordinator;
class FeedbackPresenter;
class LLMClient;
class OverlayPanelController;
class ProcessArguments;
class ProductUpdates;

// The tray application: owns the long-lived objects, builds the tray menu, routes each captured
// selection to the card (API mode) or the browser queue (browser mode) and reports short feedback.
// Main thread only.
class AppDelegate : public QObject
{
    Q_OBJECT
public:
    static constexpr qsizetype maximumSelectionLength = 100000;
    static constexpr double heartbeatMaximumAge = 4.0;

    struct Options
    {
        std::optional<QString> settingsPath;  // a private settings file instead of the user's
        std::optional<QString> dataDirectory; // a private queue folder instead of the default
        // When the browser request is looked at again; shortened only by tests.
        int firstDeliveryCheckMs = 5000;
        int secondDeliveryCheckMs = 8000;
        int runtimeStatusIntervalMs = 1000;
        int accessibilityPollMs = 500;
        int accessibilityPollLimitMs = 60000;
        int chromeWaitSeconds = 12;
        // This executable, started again for the API mode's helper processes (fetch worker, key
        // reads); a test program names the velnora binary instead of itself.
        QString helperProgram = QStringLiteral("/proc/self/exe");
    };

    enum class InstanceClaim { first, another, noBus };

    explicit AppDelegate(QObject* parent = nullptr);
    explicit AppDelegate(Options options, QObject* parent = nullptr);
    ~AppDelegate() override;

    // Takes the control bus name; `another` means a running instance holds it.
    InstanceClaim claimInstance();
    // Launch: tray, host manifest, hot key, status timer, bus observers, preview, first-run hint.
    void applicationDidFinishLaunching(const ProcessArguments& arguments);

    // Refuses overlong texts, then explains in the card or queues a browser request.
    void route(const SelectionResult& selection);
    // Reads the selection (accessibility, PRIMARY, synthetic copy) and routes it.
    void explainCurrentSelection();
    // The explain item: acts on what the menu showed when it opened.
    void explainFromMenu();
    void refreshExplainItem();
    void showFeedback(const QString& text, double durationSeconds = 1.8);
    void selectMode(ExecutionMode mode);
    void selectHotKey(const QString& choiceID);
    void toggleLaunchAtLogin();
    void checkAccessibility();
    void checkChrome();
    void openSettings(const QString& message = {}, Tone tone = Tone::info,
                      std::optional<ProviderField> field = std::nullopt);
    void handleNotification(const QString& name);
    // The bus method: the text, or the current selection when it is blank.
    void explainRequested(const QString& text);

    // The feedback after the second delivery check, for each diagnosis; empty when none is due.
    static QString deliveryFeedback(const BridgeDiagnosis& diagnosis);
    static QString hotKeyTakenMessage(const HotKeyChoice& choice);
    // Taken, or no hot key at all in this session, or the desktop's portal failed.
    QString hotKeyProblemMessage(const HotKeyChoice& choice) const;
    static QString translationCheckText();

    ConfigurationStore& configuration() { return *m_configuration; }
    KeychainStore& keychain() { return m_keychain; }
    RequestStore& requestStore() { return m_requestStore; }
    StatusMenu* statusMenu() const { return m_statusMenu.get(); }
    QSystemTrayIcon* statusItem() const { return m_statusItem; }
    FeedbackPresenter* feedback() const { return m_feedback; }
    SettingsWindow* settingsWindow() const { return m_settingsController; }
    ExplanationCoordinator* explanationCoordinator(); // created on first use, released when the card closes
    OverlayPanelController* overlay() const { return m_overlay.get(); }
    bool isAccessibilityMonitorRunning() const { return m_accessibilityMonitorTimer.isActive(); }
    bool isHotKeyRegistered() const { return m_hotKeyRegistered; }
    bool isReadingSelection() const { return m_selectionReader.isReading(); }
    GlobalHotKey* hotKey() const { return m_hotKey; }
    std::optional<qint64> lastActiveApplicationPID() const { return m_lastActiveApplicationPID; }

Q_SIGNALS:
    // A browser request was queued (its identifier), for tests and benchmarks.
    void browserRequestQueued(const QString& requestID);

private:
    void buildStatusMenu();
    void installHostManifest();
    void registerHotKey();
    void writeRuntimeStatus();
    void startAccessibilityMonitor(std::function<bool()> trusted);
    void scheduleDeliveryCheck(const QString& requestID);
    void ensureChromeRuns();
    void routeToBrowser(const SelectionResult& selection);
    void routeToCard(const SelectionResult& selection);
    void explainInCard(const SelectionResult& selection);
    void showCardFailure(const ProviderFailure& failure);
    ProductUpdates* updates(); // created on first use
    void releaseClosedCard();
    void showAbout();
    void checkForUpdates();
    void trackActiveApplication();
    // At quit, however it comes: the key goes back to the desktop, the clipboard to a manager.
    void prepareToQuit();

    Options m_options;
    // In the order the application needs them.
    RequestStore m_requestStore;
    SelectionReader m_selectionReader;
    GlobalHotKey* m_hotKey = nullptr;
    std::unique_ptr<ConfigurationStore> m_configuration;
    KeychainStore m_keychain;
    std::unique_ptr<LLMClient> m_client;
    std::unique_ptr<OverlayPanelController> m_overlay;
    ExplanationCoordinator* m_explanationCoordinator = nullptr;
    QPointer<SettingsWindow> m_settingsController;
    QSystemTrayIcon* m_statusItem = nullptr;
    std::unique_ptr<StatusMenu> m_statusMenu;
    FeedbackPresenter* m_feedback = nullptr;
    ControlService* m_control = nullptr;
    ProductUpdates* m_updates = nullptr;
    QPointer<AboutWindow> m_aboutWindow;
    std::unique_ptr<ActiveApplicationTracker> m_activeApplications;
    std::optional<qint64> m_lastActiveApplicationPID;
    std::optional<SelectionResult> m_previewedSelection;
    std::optional<ExplainSource> m_explainSource;
    QTimer m_accessibilityMonitorTimer;
    QTimer m_runtimeStatusTimer;
    QTimer m_chromeCountdown;
    int m_accessibilityPolls = 0;
    std::function<bool()> m_accessibilityTrusted;
    bool m_trusted = false;
    bool m_hotKeyRegistered = false;
    QString m_hotKeyFailure;
    bool m_chromeCheckRunning = false;
    bool m_readingKey = false; // a key read for the card waits on the keyring
    int m_chromeSecondsLeft = 0;
};

} // namespace velnora
