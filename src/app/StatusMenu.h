#pragma once

#include "capture/HotKeyChoice.h"
#include "config/ProviderCatalog.h"

#include <QMap>
#include <QMenu>
#include <optional>

class QAction;

namespace velnora {

// Where the explain item's text comes from.
enum class ExplainSource { selection, clipboard };

// The tray icon's menu, top to bottom as the user sees it. Holds the items; the application delegate
// connects their actions and keeps titles and check marks current.
class StatusMenu : public QMenu
{
    Q_OBJECT
public:
    struct ExplainItem
    {
        QString title;
        bool enabled = false;
        std::optional<ExplainSource> source;
        friend bool operator==(const ExplainItem&, const ExplainItem&) = default;
    };

    static constexpr int previewLength = 20;

    explicit StatusMenu(QWidget* parent = nullptr);

    // The explain item for a peeked selection and the clipboard's plain text.
    static ExplainItem explainMenuItemTitle(const std::optional<QString>& selection,
                                            const std::optional<QString>& clipboard);
    // One line, trimmed, at most 20 characters and "…"; empty when nothing visible is left.
    static QString preview(const QString& text);
    static QString modeTitle(ExecutionMode mode);
    static QString hotKeyMenuTitle(const HotKeyChoice& choice);
    // The submenu's title while the chosen combination is held by another application.
    static QString hotKeyConflictMenuTitle(const HotKeyChoice& choice);
    static QString hotKeyConflictItemTitle(const HotKeyChoice& choice);

    void setExplainItem(const ExplainItem& item);
    void setCurrentMode(ExecutionMode mode);
    void setCurrentHotKey(const QString& choiceID);
    // Shown on the chosen combination and the submenu until a registration succeeds.
    void setHotKeyConflict(bool conflict);
    // The key a Wayland desktop bound for us, as it names it; it replaces the chosen combination's title.
    void setReportedTrigger(const QString& trigger);

    QAction* explainItem() const { return m_explain; }
    QMenu* modeMenu() const { return m_modeMenu; }
    QMenu* hotKeyMenu() const { return m_hotKeyMenu; }
    const QMap<ExecutionMode, QAction*>& modeMenuItems() const { return m_modeItems; }
    const QMap<QString, QAction*>& hotKeyMenuItems() const { return m_hotKeyItems; }
    QAction* accessibilityItem() const { return m_accessibility; }
    QAction* chromeItem() const { return m_chrome; }
    QAction* settingsItem() const { return m_settings; }
    QAction* aboutItem() const { return m_about; }
    QAction* updatesItem() const { return m_updates; }
    QAction* launchAtLoginItem() const { return m_launchAtLogin; }
    QAction* quitItem() const { return m_quit; }

private:
    QAction* m_explain = nullptr;
    QMenu* m_modeMenu = nullptr;
    QMenu* m_hotKeyMenu = nullptr;
    QMap<ExecutionMode, QAction*> m_modeItems;
    QMap<QString, QAction*> m_hotKeyItems;
    QAction* m_accessibility = nullptr;
    QAction* m_chrome = nullptr;
    QAction* m_settings = nullptr;
    QAction* m_about = nullptr;
    QAction* m_updates = nullptr;
    QAction* m_launchAtLogin = nullptr;
    QAction* m_quit = nullptr;
    QString m_currentHotKey;
    bool m_hotKeyConflict = false;
    std::optional<QString> m_reportedTrigger;

    void showHotKeyState();
};

} // namespace velnora
