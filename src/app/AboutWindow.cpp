#include "app/AboutWindow.h"

#include "app/ProductIcon.h"
#include "updates/ProductRelease.h"
#include "updates/ProductUpdates.h"

#include <QDesktopServices>
#include <QFrame>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

namespace velnora {

namespace {

QLabel* sectionTitle(const QString& text, QWidget* parent)
{
    auto* label = new QLabel(text, parent);
    QFont font = label->font();
    font.setBold(true);
    label->setFont(font);
    return label;
}

QLabel* statusLabel(QWidget* parent)
{
    auto* label = new QLabel(parent);
    label->setWordWrap(true);
    label->setTextInteractionFlags(Qt::TextSelectableByMouse);
    // The status quotes the release manifest and the extension's status file: never markup.
    label->setTextFormat(Qt::PlainText);
    return label;
}

QFrame* separator(QWidget* parent)
{
    auto* line = new QFrame(parent);
    line->setFrameShape(QFrame::HLine);
    line->setFrameShadow(QFrame::Sunken);
    return line;
}

} // namespace

AboutWindow::AboutWindow(ProductUpdates* updates, QWidget* parent)
    : QWidget(parent, Qt::Tool), m_updates(updates)
{
    // Qt appends the application's name to a title that does not end with it.
    setWindowTitle(QStringLiteral("关于 — 澜镜"));
    setWindowIcon(ProductIcon::windowIcon());
    setAttribute(Qt::WA_DeleteOnClose);

    auto* mark = new QLabel(this);
    mark->setPixmap(ProductIcon::mark(56, devicePixelRatioF()));
    mark->setFixedSize(56, 56);

    auto* name = new QLabel(QStringLiteral("澜镜"), this);
    QFont nameFont = name->font();
    nameFont.setPointSizeF(nameFont.pointSizeF() * 1.6);
    nameFont.setBold(true);
    name->setFont(nameFont);
    auto* version = new QLabel(
        QStringLiteral("版本 %1（构建 %2）").arg(ProductRelease::version(), ProductRelease::build()), this);
    version->setTextInteractionFlags(Qt::TextSelectableByMouse);
    version->setTextFormat(Qt::PlainText);
    auto* tagline = new QLabel(QStringLiteral("选中文字，一键用通俗的简体中文讲清楚。"), this);
    tagline->setForegroundRole(QPalette::PlaceholderText);

    auto* identity = new QVBoxLayout;
    identity->setSpacing(2);
    identity->addWidget(name);
    identity->addWidget(version);
    identity->addWidget(tagline);
    auto* header = new QHBoxLayout;
    header->setSpacing(14);
    header->addWidget(mark, 0, Qt::AlignTop);
    header->addLayout(identity, 1);

    m_applicationStatus = statusLabel(this);
    m_checkApplication = new QPushButton(QStringLiteral("检查更新(&U)"), this);
    m_download = new QPushButton(QStringLiteral("前往下载(&D)"), this);
    auto* applicationButtons = new QHBoxLayout;
    applicationButtons->addStretch(1);
    applicationButtons->addWidget(m_download);
    applicationButtons->addWidget(m_checkApplication);

    m_extensionStatus = statusLabel(this);
    m_checkExtension = new QPushButton(QStringLiteral("检查扩展更新(&X)"), this);
    auto* extensionButtons = new QHBoxLayout;
    extensionButtons->addStretch(1);
    extensionButtons->addWidget(m_checkExtension);

    const QString site = updates->website().host();
    auto* website =
        new QLabel(QStringLiteral("官网：<a href=\"%1\">%2</a>")
                       .arg(updates->website().toString(QUrl::FullyEncoded), site.toHtmlEscaped()),
                   this);
    website->setOpenExternalLinks(true);
    auto* close = new QPushButton(QStringLiteral("关闭"), this);
    auto* footer = new QHBoxLayout;
    footer->addWidget(website, 1);
    footer->addWidget(close);

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(22, 20, 22, 16);
    layout->setSpacing(10);
    layout->addLayout(header);
    layout->addSpacing(4);
    layout->addWidget(separator(this));
    layout->addWidget(sectionTitle(QStringLiteral("应用更新"), this));
    layout->addWidget(m_applicationStatus);
    layout->addLayout(applicationButtons);
    layout->addWidget(sectionTitle(QStringLiteral("Chrome 扩展"), this));
    layout->addWidget(m_extensionStatus);
    layout->addLayout(extensionButtons);
    layout->addWidget(separator(this));
    layout->addLayout(footer);
    setFixedWidth(480);

    connect(m_checkApplication, &QPushButton::clicked, m_updates, &ProductUpdates::checkApplication);
    connect(m_checkExtension, &QPushButton::clicked, m_updates, &ProductUpdates::checkExtension);
    connect(m_download, &QPushButton::clicked, this, [this] {
        if (const auto url = m_updates->downloadURL()) {
            QDesktopServices::openUrl(*url);
        }
    });
    connect(close, &QPushButton::clicked, this, &QWidget::close);
    connect(m_updates, &ProductUpdates::applicationStatusChanged, this, &AboutWindow::refreshApplication);
    connect(m_updates, &ProductUpdates::applicationCheckingChanged, this, &AboutWindow::refreshApplication);
    connect(m_updates, &ProductUpdates::extensionStatusChanged, this, &AboutWindow::refreshExtension);
    connect(m_updates, &ProductUpdates::extensionCheckingChanged, this, &AboutWindow::refreshExtension);
    refreshApplication();
    refreshExtension();
}

void AboutWindow::present()
{
    show();
    raise();
    activateWindow();
}

void AboutWindow::keyPressEvent(QKeyEvent* event)
{
    if (event->key() == Qt::Key_Escape) {
        close();
        return;
    }
    QWidget::keyPressEvent(event);
}

void AboutWindow::refreshApplication()
{
    m_applicationStatus->setText(m_updates->applicationStatus());
    m_checkApplication->setEnabled(!m_updates->isCheckingApplication());
    m_download->setVisible(m_updates->downloadURL().has_value());
}

void AboutWindow::refreshExtension()
{
    m_extensionStatus->setText(m_updates->extensionStatus());
    m_checkExtension->setEnabled(!m_updates->isCheckingExtension());
}

} // namespace velnora
