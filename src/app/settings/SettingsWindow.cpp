#include "app/settings/SettingsWindow.h"

#include "app/ProductIcon.h"
#include "bridge/NativeHostInstaller.h"
#include "config/AppEdition.h"
#include "config/ConfigurationStore.h"

#include <QAbstractButton>
#include <QCloseEvent>
#include <QDesktopServices>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QMessageBox>
#include <QPushButton>
#include <QSignalBlocker>
#include <QTabWidget>
#include <QVBoxLayout>

namespace velnora {

SettingsWindow::Collaborators SettingsWindow::Collaborators::standard(ConfigurationStore* configuration,
                                                                      KeychainStore* keychain)
{
    Collaborators collaborators;
    collaborators.configuration = configuration;
    collaborators.keychain = keychain;
    collaborators.addressPolicy = AppEdition::validate;
    collaborators.openURL = [](const QUrl& url) { return QDesktopServices::openUrl(url); };
    collaborators.executablePath = NativeHostInstaller::currentExecutablePath();
    return collaborators;
}

SettingsWindow::SettingsWindow(Collaborators collaborators, QWidget* parent)
    : QWidget(parent, Qt::Tool), m_collaborators(std::move(collaborators))
{
    Q_ASSERT(m_collaborators.configuration && m_collaborators.keychain);
    // Qt appends the application's name to a title that does not end with it.
    setWindowTitle(QStringLiteral("设置 — 澜镜"));
    setWindowIcon(ProductIcon::windowIcon());
    setAttribute(Qt::WA_DeleteOnClose);

    m_banner = new ResultLine(this, 1, true);
    m_banner->hide();

    m_general = new GeneralSettingsPage(
        {m_collaborators.configuration, m_collaborators.requestStore.value_or(RequestStore()),
         m_collaborators.openURL, m_collaborators.applyHotKey, m_collaborators.holdHotKey,
         m_collaborators.hotKeyProblem, m_collaborators.executablePath},
        this);
    m_api = new ApiSettingsPage(m_collaborators.configuration, m_collaborators.keychain,
                                m_collaborators.addressPolicy, this);
    m_pages = {m_general, m_api};
    m_tabs = new QTabWidget(this);
    m_tabs->addTab(m_general, QStringLiteral("通用(&G)"));
    m_tabs->addTab(m_api, QStringLiteral("API 直连(&A)"));

    m_status = new ResultLine(this, 2);
    m_close = new QPushButton(QStringLiteral("关闭"), this);
    m_close->setToolTip(QStringLiteral("Esc"));
    m_save = new QPushButton(QStringLiteral("保存(&S)"), this);
    m_save->setToolTip(QStringLiteral("Enter"));
    auto* footer = new QHBoxLayout;
    footer->addWidget(m_status, 1);
    footer->addWidget(m_close, 0, Qt::AlignTop);
    footer->addWidget(m_save, 0, Qt::AlignTop);
    // Focus moves the way the buttons read on screen.
    setTabOrder(m_close, m_save);

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(16, 16, 16, 14);
    layout->setSpacing(12);
    layout->addWidget(m_banner);
    layout->addWidget(m_tabs, 1);
    layout->addLayout(footer);
    setMinimumWidth(660);

    connect(m_save, &QPushButton::clicked, this, [this] { save(); });
    connect(m_close, &QPushButton::clicked, this, &QWidget::close);
    for (SettingsPage* page : m_pages) {
        connect(page, &SettingsPage::reported, this, [this](const QString& message, Tone tone) {
            m_status->showMessage(message, tone);
            m_closeWhenIdle = false; // the user has to see this first
        });
        connect(page, &SettingsPage::busyChanged, this, [this] {
            if (m_closeWhenIdle && !isWriting()) {
                close();
            }
        });
    }
    connect(m_api, &ApiSettingsPage::fieldNeedsAttention, this, [this] { m_tabs->setCurrentWidget(m_api); });
    connect(m_general, &GeneralSettingsPage::aboutRequested, this, &SettingsWindow::aboutRequested);
    connect(m_general, &GeneralSettingsPage::updatesRequested, this, &SettingsWindow::updatesRequested);
    connect(m_general, &GeneralSettingsPage::launchAtLoginChanged, this,
            &SettingsWindow::launchAtLoginChanged);
}

void SettingsWindow::present(const QString& message, Tone tone, std::optional<ProviderField> field)
{
    if (!m_loaded) {
        for (SettingsPage* page : m_pages) {
            page->load();
        }
        m_loaded = true;
    }
    if (!message.isEmpty()) {
        m_banner->showMessage(message, tone);
    }
    show();
    raise();
    activateWindow();
    if (field) {
        m_tabs->setCurrentWidget(m_api);
        m_api->focusField(*field);
    }
}

void SettingsWindow::showPage(SettingsPage* page)
{
    m_tabs->setCurrentWidget(page);
}

bool SettingsWindow::save()
{
    m_status->clearMessage();
    // Every page is asked before any page writes, so a refusal leaves the settings as they were.
    for (SettingsPage* page : m_pages) {
        if (const std::optional<QString> refusal = page->refusal()) {
            showPage(page);
            m_status->showMessage(*refusal, Tone::error);
            return false;
        }
    }
    ConfigurationStore& store = *m_collaborators.configuration;
    {
        // One change notification after the whole save, not one per key.
        const QSignalBlocker blocker(&store);
        for (SettingsPage* page : m_pages) {
            page->save();
        }
    }
    Q_EMIT store.configurationDidChange();
    m_banner->clearMessage();
    m_status->showMessage(QStringLiteral("设置已保存。"), Tone::success);
    Q_EMIT saved();
    return true;
}

bool SettingsWindow::isModified() const
{
    return std::any_of(m_pages.cbegin(), m_pages.cend(),
                       [](const SettingsPage* page) { return page->isModified(); });
}

bool SettingsWindow::isBusy() const
{
    return std::any_of(m_pages.cbegin(), m_pages.cend(),
                       [](const SettingsPage* page) { return page->isBusy(); });
}

bool SettingsWindow::isWriting() const
{
    return std::any_of(m_pages.cbegin(), m_pages.cend(),
                       [](const SettingsPage* page) { return page->isWriting(); });
}

void SettingsWindow::keyPressEvent(QKeyEvent* event)
{
    switch (event->key()) {
    case Qt::Key_Escape:
        close();
        return;
    case Qt::Key_Return:
    case Qt::Key_Enter:
        // Fields pass Enter on; a focused button is pressed instead of saving behind its back.
        if (auto* button = qobject_cast<QAbstractButton*>(focusWidget()); button && button != m_save) {
            button->click();
        } else {
            save();
        }
        return;
    default:
        QWidget::keyPressEvent(event);
    }
}

void SettingsWindow::closeEvent(QCloseEvent* event)
{
    if (!isModified()) {
        acceptClose(event);
        return;
    }
    QMessageBox question(QMessageBox::Question, QStringLiteral("设置 — 澜镜"),
                         QStringLiteral("有尚未保存的修改。关闭前要保存吗？"), QMessageBox::NoButton, this);
    QPushButton* saveButton = question.addButton(QStringLiteral("保存"), QMessageBox::AcceptRole);
    QPushButton* discardButton = question.addButton(QStringLiteral("不保存"), QMessageBox::DestructiveRole);
    question.addButton(QStringLiteral("取消"), QMessageBox::RejectRole);
    question.setDefaultButton(saveButton);
    question.exec();
    if (question.clickedButton() == discardButton || (question.clickedButton() == saveButton && save())) {
        acceptClose(event);
    } else {
        event->ignore();
    }
}

void SettingsWindow::acceptClose(QCloseEvent* event)
{
    // A key still on its way to the keyring: the window stays until the write answers, so a
    // failure is seen and the typed key is not lost.
    if (isWriting()) {
        m_closeWhenIdle = true;
        m_status->showMessage(QStringLiteral("正在完成钥匙串操作，完成后自动关闭窗口…"), Tone::info);
        event->ignore();
        return;
    }
    event->accept();
}

} // namespace velnora
