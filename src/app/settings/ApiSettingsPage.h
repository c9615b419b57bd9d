#pragma once

#include "app/settings/SettingsPage.h"
#include "config/ResolvedProviderConfiguration.h"
#include "llm/ProviderDiagnostics.h"

#include <QHash>
#include <QStringList>
#include <functional>

class QComboBox;
class QLineEdit;
class QPlainTextEdit;
class QPushButton;

namespace velnora {

class ConfigurationStore;
class ConnectionTest;
class FieldMarks;
class KeychainStore;
struct KeychainReply;

// "API 直连": the service, its key (kept in the keychain), address, model and the system prompt, with
// a one-word test request, the model list and the keychain repair. Edits of every service survive a
// switch to another service until the window closes; saving stores all of them.
class ApiSettingsPage : public SettingsPage
{
    Q_OBJECT
public:
    // Throws ConfigurationError when a configuration may not be used.
    using AddressPolicy = std::function<void(const ResolvedProviderConfiguration&)>;

    ApiSettingsPage(ConfigurationStore* configuration, KeychainStore* keychain, AddressPolicy addressPolicy,
                    QWidget* parent = nullptr);

    void load() override;
    std::optional<QString> refusal() override;
    void save() override;
    bool isModified() const override;
    bool isBusy() const override;
    bool isWriting() const override { return m_writes > 0; }

    void testConnection();
    void fetchModels();
    void repairKeychainAccess();
    // Switches to this page's field, marks it and selects its text.
    void focusField(ProviderField field);

    QComboBox* providerBox() const { return m_provider; }
    QLineEdit* apiKeyField() const { return m_apiKey; }
    ResultLine* apiKeyStatus() const { return m_keyStatus; }
    QLineEdit* baseURLField() const { return m_baseURL; }
    QComboBox* modelBox() const { return m_model; }
    QPlainTextEdit* systemPromptField() const { return m_systemPrompt; }
    ResultLine* testResult() const { return m_testResult; }
    ResultLine* modelListResult() const { return m_modelListResult; }
    QPushButton* testButton() const { return m_test; }
    QPushButton* fetchModelsButton() const { return m_fetchModels; }
    QWidget* fieldWidget(ProviderField field) const;

Q_SIGNALS:
    // A result names a field of this page; the window shows the page.
    void fieldNeedsAttention();

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    // What the user typed for one service.
    struct Draft
    {
        QString baseURL;
        QString model;
        QString key;
        bool keyEdited = false;
        QStringList models; // the fetched list
    };

    void showProvider();
    void keepDraft();
    Draft storedDraft(const QString& providerID) const;
    bool differsFromStore(const QString& providerID, const Draft& draft) const;
    QHash<QString, Draft> allDrafts() const;
    void refreshKeyStatus(const QString& providerID);
    // The configuration for a test request or a model list: `use` runs once the key is known, or the
    // failure is shown on the line and `failed` runs.
    void withFormConfiguration(ResultLine* line,
                               std::function<void(const ResolvedProviderConfiguration&)> use,
                               std::function<void()> failed);
    void runKeychain(std::function<KeychainReply(KeychainStore&)> work,
                     std::function<void(const KeychainReply&)> done);
    void showDiagnosis(ResultLine* line, const ProviderDiagnosis& diagnosis);
    void clearResults();
    void updateBusyButtons();

    ConfigurationStore* m_configuration;
    KeychainStore* m_keychain;
    AddressPolicy m_addressPolicy;
    ConnectionTest* m_connectionTest;
    FieldMarks* m_marks = nullptr;

    QComboBox* m_provider;
    ResultLine* m_providerCaption;
    QLineEdit* m_apiKey;
    ResultLine* m_keyStatus;
    QLineEdit* m_baseURL;
    QComboBox* m_model;
    QPushButton* m_fetchModels;
    ResultLine* m_modelListResult;
    QPlainTextEdit* m_systemPrompt;
    QPushButton* m_test;
    QPushButton* m_repairKeychain;
    ResultLine* m_testResult;

    QString m_shownProviderID;
    QHash<QString, Draft> m_drafts; // services the user switched away from
    bool m_keyEdited = false;
    bool m_testing = false; // from the key lookup to the test's end
    bool m_fetchingModels = false;
    int m_keychainCalls = 0;
    int m_writes = 0; // key writes and repairs not answered yet
};

} // namespace velnora
