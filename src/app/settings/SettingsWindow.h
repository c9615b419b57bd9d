#pragma once

#include "app/settings/ApiSettingsPage.h"
#include "app/settings/GeneralSettingsPage.h"
#include "app/settings/ResultLine.h"
#include "bridge/RequestStore.h"

#include <QList>
#include <QWidget>
#include <functional>
#include <optional>

class QPushButton;
class QTabWidget;

namespace velnora {

class ConfigurationStore;
class KeychainStore;

// The settings window: a tab per page, a banner for the reason it was opened, and 保存 / 关闭. It is
// created when opened and deleted when closed; closing with unsaved edits asks first.
class SettingsWindow : public QWidget
{
    Q_OBJECT
public:
    struct Collaborators
    {
        ConfigurationStore* configuration = nullptr;
        KeychainStore* keychain = nullptr;
        // The queue whose heartbeat tells whether the bridge is alive; the default folder when empty.
        std::optional<RequestStore> requestStore;
        // Which addresses the test request and the model list may reach. Saving always applies the
        // edition policy; tests loosen this one to talk to a loopback server.
        ApiSettingsPage::AddressPolicy addressPolicy;
        // Opens a folder in the file manager.
        std::function<bool(const QUrl&)> openURL;
        HotKeySection::Apply applyHotKey;
        HotKeySection::Hold holdHotKey;
        std::function<std::optional<QString>()> hotKeyProblem;
        QString executablePath;

        // The application's collaborators: edition policy, the desktop's file manager.
        static Collaborators standard(ConfigurationStore* configuration, KeychainStore* keychain);
    };

    explicit SettingsWindow(Collaborators collaborators, QWidget* parent = nullptr);

    // Shows the window (raising it when it is open), with an optional banner and the focus on the
    // field to fix. The pages are loaded from the store unless the window was already open.
    void present(const QString& message = {}, Tone tone = Tone::info,
                 std::optional<ProviderField> field = std::nullopt);
    // Saves every page, unless one refuses: then nothing is written and that page is shown.
    bool save();
    // Whether any page holds edits that were not saved.
    bool isModified() const;
    bool isBusy() const;
    // Whether a key write or repair has not answered yet; closing waits for it.
    bool isWriting() const;

    GeneralSettingsPage* generalPage() const { return m_general; }
    ApiSettingsPage* apiPage() const { return m_api; }
    ResultLine* banner() const { return m_banner; }
    ResultLine* statusLine() const { return m_status; }
    QPushButton* saveButton() const { return m_save; }
    QPushButton* closeButton() const { return m_close; }
    QTabWidget* tabs() const { return m_tabs; }

Q_SIGNALS:
    void saved();
    void aboutRequested();
    void updatesRequested();
    void launchAtLoginChanged(bool enabled);

protected:
    void keyPressEvent(QKeyEvent* event) override;
    void closeEvent(QCloseEvent* event) override;

private:
    void showPage(SettingsPage* page);
    void acceptClose(QCloseEvent* event);

    Collaborators m_collaborators;
    ResultLine* m_banner;
    QTabWidget* m_tabs;
    GeneralSettingsPage* m_general;
    ApiSettingsPage* m_api;
    QList<SettingsPage*> m_pages;
    ResultLine* m_status;
    QPushButton* m_close;
    QPushButton* m_save;
    bool m_loaded = false;
    bool m_closeWhenIdle = false;
};

} // namespace velnora
