#include "app/settings/BrowserConnectionSection.h"

#include "app/settings/ResultLine.h"
#include "bridge/BridgeDiagnostics.h"
#include "bridge/BridgeRepair.h"
#include "bridge/BundledExtension.h"
#include "bridge/PageSelfCheck.h"
#include "updates/ProductRelease.h"

#include <QApplication>
#include <QClipboard>
#include <QDateTime>
#include <QDir>
#include <QHBoxLayout>
#include <QLabel>
#include <QPointer>
#include <QPushButton>
#include <QTimer>
#include <QVBoxLayout>
#include <cmath>

namespace velnora {

namespace {

constexpr double repairTimeout = 12.0;
constexpr double bridgeMaximumAge = 4.0;
constexpr int refreshTicks = 2;

double now()
{
    return QDateTime::currentMSecsSinceEpoch() / 1000.0;
}

} // namespace

BrowserConnectionSection::BrowserConnectionSection(RequestStore requestStore,
                                                   std::function<bool(const QUrl&)> openURL, QWidget* parent)
    : QGroupBox(QStringLiteral("浏览器连接"), parent), m_requestStore(std::move(requestStore)),
      m_openURL(std::move(openURL))
{
    m_status = new ResultLine(this);
    QFont bold = m_status->font();
    bold.setBold(true);
    m_status->setFont(bold);
    m_advice = new ResultLine(this, 2);
    m_message = new ResultLine(this, 2);
    m_repair = new QPushButton(QStringLiteral("修复连接(&R)"), this);
    m_repair->setToolTip(QStringLiteral("重新写入连接配置，在后台唤起浏览器，并等待扩展连上"));
    m_install = new QPushButton(QStringLiteral("安装扩展(&I)"), this);
    m_install->setToolTip(QStringLiteral("打开随应用附带的扩展目录，并复制扩展页的地址"));
    m_checkPage = new QPushButton(QStringLiteral("检测网页(&K)"), this);
    m_checkPage->setToolTip(
        QStringLiteral("打开所选的网页会话服务，检查输入框、发送按钮和登录状态，不会发送任何内容"));
    m_pageCheck = new PageSelfCheck(m_requestStore, this);
    m_actions = new QHBoxLayout;
    m_actions->addWidget(m_repair);
    m_actions->addWidget(m_install);
    m_actions->addWidget(m_checkPage);
    m_actions->addStretch(1);

    auto* layout = new QVBoxLayout(this);
    layout->setSpacing(8);
    layout->addWidget(m_status);
    layout->addWidget(m_advice);
    layout->addLayout(m_actions);
    layout->addWidget(m_message);

    m_ticker = new QTimer(this);
    m_ticker->setInterval(1000);
    connect(m_ticker, &QTimer::timeout, this, &BrowserConnectionSection::tick);
    connect(m_repair, &QPushButton::clicked, this, &BrowserConnectionSection::repair);
    connect(m_install, &QPushButton::clicked, this, &BrowserConnectionSection::installExtension);
    connect(m_checkPage, &QPushButton::clicked, this, &BrowserConnectionSection::checkPage);
    connect(m_pageCheck, &PageSelfCheck::finished, this, [this](const QString& sentence, bool pageReady) {
        m_checkPage->setEnabled(true);
        m_message->showMessage(sentence, pageReady ? Tone::success : Tone::warning);
    });
}

void BrowserConnectionSection::setChosenProvider(std::function<BrowserProvider()> chosenProvider)
{
    m_chosenProvider = std::move(chosenProvider);
}

void BrowserConnectionSection::checkPage()
{
    if (m_pageCheck->isRunning()) {
        return;
    }
    const BrowserProvider provider = m_chosenProvider ? m_chosenProvider() : BrowserProvider::doubao;
    m_checkPage->setEnabled(false);
    m_message->showMessage(
        QStringLiteral("正在打开「%1」检测网页，不会发送任何内容…").arg(browserProviderTitle(provider)),
        Tone::info);
    m_pageCheck->start(provider);
}

void BrowserConnectionSection::refreshStatus()
{
    const BridgeDiagnosis diagnosis =
        BridgeDiagnostics::diagnoseCurrent(m_requestStore.isBridgeActive(bridgeMaximumAge));
    m_status->setText(diagnosis.statusText());
    m_advice->setText(diagnosis.advice());
}

void BrowserConnectionSection::repair()
{
    if (m_repairing) {
        return;
    }
    m_repairing = true;
    m_repairDeadline = now() + repairTimeout;
    m_repair->setEnabled(false);
    tick();
    QPointer<BrowserConnectionSection> self(this);
    BridgeRepair::attempt(m_requestStore, repairTimeout, [self](const BridgeDiagnosis& diagnosis) {
        if (!self) {
            return;
        }
        self->m_repairing = false;
        self->m_repair->setEnabled(true);
        self->m_status->setText(diagnosis.statusText());
        self->m_advice->setText(diagnosis.advice());
        if (diagnosis.kind == BridgeDiagnosis::Kind::connected) {
            self->m_message->showMessage(QStringLiteral("修复完成，浏览器已连接。"), Tone::success);
        } else {
            self->m_message->showMessage(QStringLiteral("等待结束，仍未连上，请按上面的提示处理。"),
                                         Tone::warning);
        }
    });
}

void BrowserConnectionSection::installExtension()
{
    const std::optional<QString> folder = BundledExtension::folderURL();
    if (!folder) {
        m_message->showMessage(QStringLiteral("没有找到随应用附带的扩展目录，请重新安装澜镜后再试。"),
                               Tone::error);
        return;
    }
    if (BridgeDiagnostics::diagnosedBrowser().family == BrowserFamily::firefox) {
        installFirefoxExtension(*folder);
        return;
    }
    QApplication::clipboard()->setText(QStringLiteral("chrome://extensions/"));
    const bool opened = m_openURL && m_openURL(QUrl::fromLocalFile(*folder));
    const QString native = QDir::toNativeSeparators(*folder);
    m_message->showMessage(
        (opened ? QStringLiteral("已在文件管理器中打开扩展目录，")
                : QStringLiteral("扩展目录在 ") + native + QStringLiteral("，")) +
            QStringLiteral(
                "并把 chrome://extensions/ 复制到了剪贴板。请在 Chrome 地址栏粘贴打开，开启右上角的"
                "「开发者模式」，点「加载已解压的扩展程序」，选择这个目录：") +
            native,
        Tone::info);
}

void BrowserConnectionSection::installFirefoxExtension(const QString& folder)
{
    // Release builds of Firefox refuse unsigned extensions: the signed one comes from the site.
    const QUrl site = ProductRelease::website();
    const bool opened = m_openURL && m_openURL(site);
    const QString debugging = QStringLiteral("about:debugging#/runtime/this-firefox");
    QApplication::clipboard()->setText(debugging);
    m_message->showMessage(
        (opened ? QStringLiteral("已打开澜镜官网，")
                : QStringLiteral("请打开澜镜官网 ") + site.toString() + QStringLiteral("，")) +
            QStringLiteral(
                "下载签名版扩展并在 Firefox 中安装。开发调试时可用 Firefox ESR 或开发者版：在 "
                "about:config 把 xpinstall.signatures.required 设为 false 后安装未签名版；或在地址栏"
                "粘贴已复制的 ") +
            debugging + QStringLiteral("，点「临时载入附加组件」，选择 ") +
            QDir::toNativeSeparators(QDir(folder).filePath(QStringLiteral("manifest.json"))) +
            QStringLiteral("（重启 Firefox 后需重新载入）。"),
        Tone::info);
}

void BrowserConnectionSection::tick()
{
    if (m_repairing) {
        const int left = std::max(0, int(std::ceil(m_repairDeadline - now())));
        m_message->showMessage(QStringLiteral("正在修复连接，等待浏览器（%1 秒）…").arg(left), Tone::info);
        return;
    }
    if (++m_ticks % refreshTicks == 0) {
        refreshStatus();
    }
}

void BrowserConnectionSection::showEvent(QShowEvent* event)
{
    QGroupBox::showEvent(event);
    refreshStatus();
    m_ticker->start();
}

void BrowserConnectionSection::hideEvent(QHideEvent* event)
{
    QGroupBox::hideEvent(event);
    m_ticker->stop();
}

} // namespace velnora
