#pragma once

#include "bridge/RequestStore.h"
#include "config/ResolvedProviderConfiguration.h"
#include "llm/ProviderDiagnostics.h"

#include <QPointer>
#include <QUrl>
#include <QWidget>
#include <functional>
#include <memory>
#include <optional>

class QComboBox;
class QCompleter;
class QLabel;
class QLineEdit;
class QPlainTextEdit;
class QPushButton;
class QStringListModel;
class QTabWidget;
class QTimer;

namespace velnora {

class ConfigurationStore;
class KeychainStore;
class LLMClient;

// The settings window: mode, services, depth, the API provider's key, address, model and prompt,
// a one-word test request, the model list, keychain repair and the Chrome connection. One instance
// lives for the run; presenting it again raises it.
class SettingsWindow : public QWidget
{
    Q_OBJECT
public:
    enum class Tone { info, success, warning, error };
    // Throws ConfigurationError when a configuration may not be used.
    using AddressPolicy = std::function<void(const ResolvedProviderConfiguration&)>;

    struct Collaborators
    {
        ConfigurationStore* configuration = nullptr;
        KeychainStore* keychain = nullptr;
        // The queue whose heartbeat tells whether the bridge is alive; the default folder when empty.
        std::optional<RequestStore> requestStore;
        // Which addresses the test request and the model list may reach. Saving always applies the
        // edition policy; tests loosen this one to talk to a loopback server.
        AddressPolicy addressPolicy;
        // Opens a folder in the file manager.
        std::function<bool(const QUrl&)> openURL;

        // The application's collaborators: edition policy, the desktop's file manager.
        static Collaborators standard(ConfigurationStore* configuration, KeychainStore* keychain);
    };

    explicit SettingsWindow(Collaborators collaborators, QWidget* parent = nullptr);
    ~SettingsWindow() override;

    // Shows the window (raising it when it is open), with an optional banner and the focus on the
    // field to fix. The form is reloaded from the settings unless the window was already open.
    void present(const QString& message = {}, Tone tone = Tone::info,
                 std::optional<ProviderField> field = std::nullopt);

    // Saves mode, services, depth and prompt, then the API key, then the provider override, then
    // announces the change. Refuses, and writes nothing, when the address or model is not allowed.
    bool save();
    void testConnection();
    void fetchModels();
    void repairKeychainAccess();
    void repairBridge();
    void installExtension();
    void refreshBridgeStatus();

    bool isTesting() const { return m_testing; }
    bool isFetchingModels() const { return m_fetchingModels; }
    bool isRepairingBridge() const { return m_repairingBridge; }

    // The widgets, for tests and for the focus of present().
    QComboBox* modeBox() const { return m_mode; }
    QComboBox* browserProviderBox() const { return m_browserProvider; }
    QComboBox* apiProviderBox() const { return m_apiProvider; }
    QComboBox* depthBox() const { return m_depth; }
    QLabel* depthHint() const { return m_depthHint; }
    QLineEdit* apiKeyField() const { return m_apiKey; }
    QLabel* apiKeyStatus() const { return m_apiKeyStatus; }
    QLineEdit* baseURLField() const { return m_baseURL; }
    QLineEdit* modelField() const { return m_model; }
    QPlainTextEdit* systemPromptField() const { return m_systemPrompt; }
    QLabel* banner() const { return m_banner; }
    QLabel* testResult() const { return m_testResult; }
    QLabel* modelListResult() const { return m_modelListResult; }
    QStringListModel* modelCompletions() const { return m_modelCompletions; }
    QLabel* bridgeStatus() const { return m_bridgeStatus; }
    QLabel* bridgeAdvice() const { return m_bridgeAdvice; }
    QLabel* bridgeMessage() const { return m_bridgeMessage; }
    QPushButton* saveButton() const { return m_save; }
    QPushButton* testButton() const { return m_test; }
    QPushButton* fetchModelsButton() const { return m_fetchModels; }
    QPushButton* repairBridgeButton() const { return m_repairBridge; }
    QWidget* fieldWidget(ProviderField field) const;
    // Whether a field is marked as the one to fix.
    static bool isMarked(const QWidget* field);

Q_SIGNALS:
    void saved();

protected:
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;
    bool eventFilter(QObject* watched, QEvent* event) override;
    void changeEvent(QEvent* event) override;

private:
    struct FormProvider
    {
        QString id;
        QString baseURL;
        QString model;
    };

    QWidget* buildGeneralPage();
    QWidget* buildAPIPage();
    void loadFromStore();
    void loadProviderFields();
    void refreshKeyStatus();
    void refreshDepthHint();
    void updateBusyButtons();

    FormProvider formProvider() const;
    // The field the policy objects to, trying the address before the model; none when accepted.
    static std::optional<ProviderField> policyFault(const FormProvider& form, const AddressPolicy& policy);
    // The configuration for a test request or a model list, or the failure that prevents one.
    std::optional<ResolvedProviderConfiguration> formConfiguration(ProviderDiagnosis* failure);

    void showBanner(const QString& message, Tone tone);
    void hideBanner();
    void showResult(QLabel* label, const QString& message, Tone tone);
    void markField(ProviderField field);
    void clearMarks();
    void focusField(ProviderField field);
    void showDiagnosis(QLabel* label, const ProviderDiagnosis& diagnosis);
    // Ends the test request: no failure means the answer arrived.
    void finishTest(const std::optional<ProviderDiagnosis>& failure);
    void tick();

    Collaborators m_collaborators;
    RequestStore m_requestStore;
    std::shared_ptr<LLMClient> m_client;

    QLabel* m_banner = nullptr;
    QTabWidget* m_tabs = nullptr;
    QWidget* m_apiPage = nullptr;
    QComboBox* m_mode = nullptr;
    QComboBox* m_browserProvider = nullptr;
    QComboBox* m_depth = nullptr;
    QLabel* m_depthHint = nullptr;
    QComboBox* m_apiProvider = nullptr;
    QLabel* m_providerCaption = nullptr;
    QLineEdit* m_apiKey = nullptr;
    QLabel* m_apiKeyStatus = nullptr;
    QLineEdit* m_baseURL = nullptr;
    QLineEdit* m_model = nullptr;
    QCompleter* m_modelCompleter = nullptr;
    QStringListModel* m_modelCompletions = nullptr;
    QLabel* m_modelListResult = nullptr;
    QPlainTextEdit* m_systemPrompt = nullptr;
    QLabel* m_testResult = nullptr;
    QLabel* m_bridgeStatus = nullptr;
    QLabel* m_bridgeAdvice = nullptr;
    QLabel* m_bridgeMessage = nullptr;
    QPushButton* m_save = nullptr;
    QPushButton* m_test = nullptr;
    QPushButton* m_fetchModels = nullptr;
    QPushButton* m_repairKeychain = nullptr;
    QPushButton* m_repairBridge = nullptr;
    QPushButton* m_installExtension = nullptr;
    QTimer* m_ticker = nullptr;

    QString m_loadedProviderID; // the provider whose key, address and model the fields show
    bool m_keyEdited = false;
    bool m_savingNow = false;
    bool m_testing = false;
    bool m_fetchingModels = false;
    bool m_repairingBridge = false;
    int m_testGeneration = 0;
    QString m_testAnswer;
    QTimer* m_testDeadline = nullptr;
    double m_repairDeadline = 0;
    int m_ticks = 0;
};

} // namespace velnora
