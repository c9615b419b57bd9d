#include "app/StatusMenu.h"

#include "app/GraphemeText.h"

#include <QActionGroup>
#include <QStyle>

namespace velnora {

StatusMenu::StatusMenu(QWidget* parent) : QMenu(parent)
{
    m_explain = addAction(QStringLiteral("解释选中内容"));

    m_modeMenu = addMenu(QStringLiteral("运行模式"));
    auto* modes = new QActionGroup(this);
    for (const ExecutionMode mode : {ExecutionMode::browser, ExecutionMode::api}) {
        QAction* item = m_modeMenu->addAction(modeTitle(mode));
        item->setCheckable(true);
        item->setData(rawValue(mode));
        modes->addAction(item);
        m_modeItems.insert(mode, item);
    }

    m_hotKeyMenu = addMenu(QStringLiteral("全局快捷键"));
    auto* hotKeys = new QActionGroup(this);
    for (const HotKeyChoice& choice : HotKeyChoice::all()) {
        QAction* item = m_hotKeyMenu->addAction(choice.title);
        item->setCheckable(true);
        item->setData(choice.id);
        hotKeys->addAction(item);
        m_hotKeyItems.insert(choice.id, item);
    }

    addSeparator();
    m_accessibility = addAction(QStringLiteral("检查辅助功能权限"));
    m_chrome = addAction(QStringLiteral("检查 Chrome 连接"));
    m_settings = addAction(QStringLiteral("设置…"));
    m_settings->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Comma));
    m_about = addAction(QStringLiteral("关于与更新…"));
    m_updates = addAction(QStringLiteral("检查更新…"));
    m_launchAtLogin = addAction(QStringLiteral("登录时启动"));
    m_launchAtLogin->setCheckable(true);
    addSeparator();
    m_quit = addAction(QStringLiteral("退出"));
    m_quit->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Q));
}

QString StatusMenu::preview(const QString& text)
{
    QString line = text;
    line.replace(u'\n', u' ').replace(u'\r', u' ').replace(u'\t', u' ');
    line = line.trimmed();
    if (line.isEmpty()) {
        return {};
    }
    if (GraphemeText::count(line, previewLength + 1) > previewLength) {
        return GraphemeText::prefix(line, previewLength) + QStringLiteral("…");
    }
    return line;
}

StatusMenu::ExplainItem StatusMenu::explainMenuItemTitle(const std::optional<QString>& selection,
                                                         const std::optional<QString>& clipboard)
{
    if (const QString shown = selection ? preview(*selection) : QString(); !shown.isEmpty()) {
        return {QStringLiteral("解释选中：“") + shown + QStringLiteral("”"), true, ExplainSource::selection};
    }
    if (const QString shown = clipboard ? preview(*clipboard) : QString(); !shown.isEmpty()) {
        return {QStringLiteral("解释剪贴板：“") + shown + QStringLiteral("”"), true,
                ExplainSource::clipboard};
    }
    return {QStringLiteral("没有选中文字，剪贴板也是空的"), false, std::nullopt};
}

QString StatusMenu::modeTitle(ExecutionMode mode)
{
    return mode == ExecutionMode::api ? QStringLiteral("悬浮卡片（API 直连）")
                                      : QStringLiteral("网页会话（免 Key）");
}

QString StatusMenu::hotKeyMenuTitle(const HotKeyChoice& choice)
{
    return QStringLiteral("全局快捷键（") + choice.title + QStringLiteral("）");
}

void StatusMenu::setExplainItem(const ExplainItem& item)
{
    m_explain->setText(item.title);
    m_explain->setEnabled(item.enabled);
}

void StatusMenu::setCurrentMode(ExecutionMode mode)
{
    for (auto it = m_modeItems.cbegin(); it != m_modeItems.cend(); ++it) {
        it.value()->setChecked(it.key() == mode);
    }
}

QString StatusMenu::hotKeyConflictMenuTitle(const HotKeyChoice& choice)
{
    return QStringLiteral("全局快捷键（") + choice.title + QStringLiteral(" 已被占用，请更换）");
}

QString StatusMenu::hotKeyConflictItemTitle(const HotKeyChoice& choice)
{
    return choice.title + QStringLiteral("（已被其他应用占用）");
}

void StatusMenu::setCurrentHotKey(const QString& choiceID)
{
    m_currentHotKey = HotKeyChoice::fromID(choiceID).id;
    showHotKeyState();
}

void StatusMenu::setHotKeyConflict(bool conflict)
{
    m_hotKeyConflict = conflict;
    showHotKeyState();
}

void StatusMenu::setReportedTrigger(const QString& trigger)
{
    m_reportedTrigger = trigger;
    showHotKeyState();
}

void StatusMenu::showHotKeyState()
{
    if (m_reportedTrigger) {
        const QString key = m_reportedTrigger->isEmpty() ? QStringLiteral("未设置按键") : *m_reportedTrigger;
        m_hotKeyMenu->setTitle(QStringLiteral("全局快捷键（") + key + QStringLiteral("）"));
        m_hotKeyMenu->setIcon(QIcon());
        return;
    }
    const HotKeyChoice current = HotKeyChoice::fromID(m_currentHotKey);
    for (const HotKeyChoice& choice : HotKeyChoice::all()) {
        QAction* item = m_hotKeyItems.value(choice.id);
        const bool taken = m_hotKeyConflict && choice.id == current.id;
        item->setChecked(choice.id == current.id);
        item->setText(taken ? hotKeyConflictItemTitle(choice) : choice.title);
    }
    m_hotKeyMenu->setTitle(m_hotKeyConflict ? hotKeyConflictMenuTitle(current) : hotKeyMenuTitle(current));
    m_hotKeyMenu->setIcon(m_hotKeyConflict ? style()->standardIcon(QStyle::SP_MessageBoxWarning) : QIcon());
}

} // namespace velnora
