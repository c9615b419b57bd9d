#pragma once

#include "app/settings/HotKeySection.h"
#include "app/settings/SettingsPage.h"
#include "bridge/RequestStore.h"
#include "config/ProviderCatalog.h"

#include <QUrl>
#include <functional>

class QCheckBox;
class QComboBox;
class QLabel;
class QPushButton;

namespace velnora {

class BrowserConnectionSection;
class ConfigurationStore;

// "通用": mode, browser service, depth, the hot key, launch at login, About and updates, and the
// browser connection. Everything a user needs when the desktop has no tray.
class GeneralSettingsPage : public SettingsPage
{
    Q_OBJECT
public:
    struct Services
    {
        ConfigurationStore* configuration = nullptr;
        RequestStore requestStore;
        std::function<bool(const QUrl&)> openURL;
        HotKeySection::Apply applyHotKey;
        HotKeySection::Hold holdHotKey;
        // Why the saved hot key is not registered now, or none.
        std::function<std::optional<QString>()> hotKeyProblem;
        // The program the autostart entry starts.
        QString executablePath;
    };

    explicit GeneralSettingsPage(Services services, QWidget* parent = nullptr);

    void load() override;
    std::optional<QString> refusal() override { return std::nullopt; }
    void save() override;
    bool isModified() const override;

    QComboBox* modeBox() const { return m_mode; }
    QComboBox* browserProviderBox() const { return m_browserProvider; }
    QComboBox* depthBox() const { return m_depth; }
    QLabel* depthHint() const { return m_depthHint; }
    HotKeySection* hotKeySection() const { return m_hotKey; }
    QCheckBox* launchAtLoginBox() const { return m_launchAtLogin; }
    BrowserConnectionSection* browserSection() const { return m_browser; }
    QPushButton* aboutButton() const { return m_about; }
    QPushButton* updatesButton() const { return m_updates; }

Q_SIGNALS:
    void aboutRequested();
    void updatesRequested();
    void launchAtLoginChanged(bool enabled);

private:
    struct Choices
    {
        std::optional<ExecutionMode> mode;
        std::optional<BrowserProvider> browserProvider;
        std::optional<ExplanationDepth> depth;
        friend bool operator==(const Choices&, const Choices&) = default;
    };

    Choices shownChoices() const;
    // Shows what the store holds for the choices the tray menu can change too; unless `all`, only
    // for the choices the user has not changed here.
    void loadChoices(bool all);
    void setLaunchAtLogin(bool enabled);

    Services m_services;
    QComboBox* m_mode;
    QComboBox* m_browserProvider;
    QComboBox* m_depth;
    QLabel* m_depthHint;
    HotKeySection* m_hotKey;
    QCheckBox* m_launchAtLogin;
    ResultLine* m_launchResult;
    BrowserConnectionSection* m_browser;
    QPushButton* m_about;
    QPushButton* m_updates;
    Choices m_loadedChoices;
};

} // namespace velnora
