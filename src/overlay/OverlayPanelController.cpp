#include "overlay/OverlayPanelController.h"

#include "llm/LLMClientError.h"
#include "overlay/AnswerView.h"
#include "overlay/ExplanationPanel.h"
#include "overlay/FollowUpField.h"
#include "overlay/MarkdownRenderer.h"
#include "overlay/PillPanel.h"
#include "overlay/ProviderIconView.h"
#include "overlay/StatusDotView.h"
#include "overlay/ToolbarButton.h"
#include "overlay/X11Desktop.h"

#include <QAbstractTextDocumentLayout>
#include <QApplication>
#include <QClipboard>
#include <QCursor>
#include <QHBoxLayout>
#include <QLabel>
#include <QPropertyAnimation>
#include <QPushButton>
#include <QScreen>
#include <QScrollBar>
#include <QSizeGrip>
#include <QTextBrowser>
#include <QVBoxLayout>

namespace velnora {

namespace {

constexpr int fadeMs = 160;

QPushButton* makeButton(const QString& text, const char* name, QWidget* parent)
{
    auto* button = new QPushButton(text, parent);
    button->setObjectName(QString::fromLatin1(name));
    button->setAccessibleName(text);
    button->setCursor(Qt::PointingHandCursor);
    button->setFocusPolicy(Qt::NoFocus);
    return button;
}

} // namespace

OverlayPanelController::OverlayPanelController(std::unique_ptr<OutsideClickSource> clicks, QObject* parent)
    : QObject(parent), m_outsideClicks(std::move(clicks))
{
    m_renderTimer.setSingleShot(true);
    m_renderTimer.setInterval(renderIntervalMs);
    connect(&m_renderTimer, &QTimer::timeout, this, &OverlayPanelController::renderImmediately);
    buildCard();
    applyColors();
}

OverlayPanelController::~OverlayPanelController()
{
    if (m_outsideClicks) {
        m_outsideClicks->stop();
    }
    // Closing must not call back into a coordinator that may be going away too.
    m_callbacks = {};
    delete m_pillPanel;
    delete m_panel;
}

void OverlayPanelController::buildCard()
{
    m_panel = new ExplanationPanel;
    connect(m_panel, &ExplanationPanel::closed, this, &OverlayPanelController::panelClosed);
    connect(m_panel, &ExplanationPanel::dragged, this,
            [this](const QPoint& origin) { m_draggedOrigin = origin; });
    connect(m_panel, &ExplanationPanel::applicationPaletteChanged, this,
            &OverlayPanelController::applyColors);

    auto* column = new QVBoxLayout(m_panel);
    const QMargins shadow = m_panel->shadowMargins();
    column->setContentsMargins(shadow.left() + 12, shadow.top() + 12, shadow.right() + 12,
                               shadow.bottom() + 12);
    column->setSpacing(8);

    // Identity and status on one row, the toolbar at its end.
    auto* header = new QHBoxLayout;
    header->setSpacing(10);
    m_providerIconView = new ProviderIconView(m_panel);
    header->addWidget(m_providerIconView, 0, Qt::AlignVCenter);
    auto* identity = new QVBoxLayout;
    identity->setSpacing(1);
    m_providerTitleLabel = new QLabel(m_panel);
    m_providerTitleLabel->setObjectName(QStringLiteral("providerTitle"));
    m_providerTitleLabel->setFont(OverlayStyle::uiFont(14.5, QFont::DemiBold));
    m_providerContextLabel = new QLabel(m_panel);
    m_providerContextLabel->setObjectName(QStringLiteral("providerContext"));
    m_providerContextLabel->setFont(OverlayStyle::uiFont(12));
    identity->addWidget(m_providerTitleLabel);
    identity->addWidget(m_providerContextLabel);
    header->addLayout(identity, 1);

    m_statusDotView = new StatusDotView(m_panel);
    m_statusLabel = new QLabel(m_panel);
    m_statusLabel->setObjectName(QStringLiteral("statusLabel"));
    m_statusLabel->setFont(OverlayStyle::uiFont(12.5));
    auto* status = new QHBoxLayout;
    status->setSpacing(6);
    status->addWidget(m_statusDotView, 0, Qt::AlignVCenter);
    status->addWidget(m_statusLabel, 0, Qt::AlignVCenter);
    header->addLayout(status);
    header->addSpacing(4);

    m_pinButton = new ToolbarButton(ToolbarButton::Symbol::pin, m_panel);
    m_pinButton->setAccessibleName(QStringLiteral("固定卡片"));
    m_copyButton = new ToolbarButton(ToolbarButton::Symbol::copy, m_panel);
    m_copyButton->setToolTip(QStringLiteral("复制解释"));
    m_copyButton->setAccessibleName(QStringLiteral("复制解释"));
    m_closeButton = new ToolbarButton(ToolbarButton::Symbol::close, m_panel);
    m_closeButton->setToolTip(QStringLiteral("关闭解释卡片"));
    m_closeButton->setAccessibleName(QStringLiteral("关闭解释卡片"));
    header->addWidget(m_pinButton);
    header->addWidget(m_copyButton);
    header->addWidget(m_closeButton);
    column->addLayout(header);

    auto* separator = new QFrame(m_panel);
    separator->setObjectName(QStringLiteral("separator"));
    separator->setFixedHeight(1);
    column->addWidget(separator);

    m_outputTextView = new AnswerView(m_panel);
    m_outputTextView->setObjectName(QStringLiteral("outputTextView"));
    m_outputTextView->setAccessibleName(QStringLiteral("解释内容"));
    m_outputTextView->setFrameShape(QFrame::NoFrame);
    m_outputTextView->setFocusPolicy(Qt::ClickFocus);
    m_outputTextView->viewport()->setAutoFillBackground(false);
    m_outputTextView->document()->setDocumentMargin(0);
    m_outputTextView->document()->setUndoRedoEnabled(false);
    m_outputTextView->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    column->addWidget(m_outputTextView, 1);

    auto* input = new QHBoxLayout;
    input->setSpacing(6);
    m_followUpField = new FollowUpField(m_panel);
    m_followUpField->setFont(OverlayStyle::uiFont(13.5));
    m_sendButton = makeButton(QStringLiteral("追问"), "sendButton", m_panel);
    m_stopButton = makeButton(QStringLiteral("停止"), "stopButton", m_panel);
    m_retryButton = makeButton(QStringLiteral("重试"), "retryButton", m_panel);
    m_fixButton = makeButton(QStringLiteral("去设置"), "fixButton", m_panel);
    for (QPushButton* button : {m_sendButton, m_stopButton, m_retryButton, m_fixButton}) {
        button->setFont(OverlayStyle::uiFont(13.5));
    }
    input->addWidget(m_followUpField, 1);
    input->addWidget(m_sendButton);
    input->addWidget(m_stopButton);
    input->addWidget(m_retryButton);
    input->addWidget(m_fixButton);
    // The corner grip resizes the frameless card down to its minimum size.
    auto* grip = new QSizeGrip(m_panel);
    grip->setFixedSize(12, 12);
    input->addWidget(grip, 0, Qt::AlignBottom | Qt::AlignRight);
    column->addLayout(input);

    connect(m_sendButton, &QPushButton::clicked, this, &OverlayPanelController::sendFollowUp);
    connect(m_followUpField, &QLineEdit::returnPressed, this, &OverlayPanelController::sendFollowUp);
    connect(m_stopButton, &QPushButton::clicked, this, [this] {
        if (m_callbacks.onStop) {
            m_callbacks.onStop();
        }
    });
    connect(m_retryButton, &QPushButton::clicked, this, [this] {
        if (m_callbacks.onRetry) {
            m_callbacks.onRetry();
        }
    });
    connect(m_fixButton, &QPushButton::clicked, this, [this] {
        if (m_pendingFixField && m_callbacks.onFixConfiguration) {
            m_callbacks.onFixConfiguration(*m_pendingFixField);
        }
    });
    connect(m_pinButton, &QAbstractButton::clicked, this, &OverlayPanelController::togglePin);
    connect(m_copyButton, &QAbstractButton::clicked, this, &OverlayPanelController::copyAnswer);
    connect(m_closeButton, &QAbstractButton::clicked, this, &OverlayPanelController::closeCard);

    setStatus(QStringLiteral("正在连接"), CardStatusTone::waiting);
    m_stopButton->hide();
    m_retryButton->hide();
    m_fixButton->hide();
    setInputEnabled(false);
    refreshPinButton();
}

PillPanel* OverlayPanelController::pillPanel()
{
    if (!m_pillPanel) {
        m_pillPanel = new PillPanel;
        m_pillPanel->setColors(m_colours);
        connect(m_pillPanel, &PillPanel::clicked, this, &OverlayPanelController::restoreFromPill);
        connect(m_pillPanel, &PillPanel::closeRequested, this, &OverlayPanelController::closeCard);
        connect(m_pillPanel, &PillPanel::dragFinished, this,
                [this](const QPoint& origin) { m_pillOrigin = origin; });
    }
    return m_pillPanel;
}

void OverlayPanelController::applyColors()
{
    m_colours = SemanticColors::current();
    m_panel->setColors(m_colours);
    m_panel->setStyleSheet(OverlayStyle::cardStyleSheet(m_colours));
    QPalette fieldPalette = m_followUpField->palette();
    fieldPalette.setColor(QPalette::PlaceholderText, m_colours.tertiaryLabel);
    m_followUpField->setPalette(fieldPalette);
    QColor hover = m_colours.label;
    hover.setAlphaF(0.08);
    for (ToolbarButton* button : {m_pinButton, m_copyButton, m_closeButton}) {
        button->setColors(m_colours.secondaryLabel, m_colours.accent, hover);
    }
    if (m_pillPanel) {
        m_pillPanel->setColors(m_colours);
    }
    applyStatusColour();
    // The document holds fixed colours: a theme switch needs a fresh render.
    if (!m_sourceMarkdown.isEmpty()) {
        renderImmediately();
    }
}

void OverlayPanelController::setCallbacks(Callbacks callbacks)
{
    m_callbacks = std::move(callbacks);
}

void OverlayPanelController::updateIdentity(const ProviderDefinition& provider, ExplanationDepth depth)
{
    const QString title = provider.compactTitle();
    m_providerIconView->setProvider(provider.id, title);
    m_providerTitleLabel->setText(title);
    m_providerContextLabel->setText(provider.platformTitle() + QStringLiteral(" · ") + depthTitle(depth) +
                                    QStringLiteral("解释"));
}

void OverlayPanelController::setStatus(const QString& text, CardStatusTone tone)
{
    // Called for every piece of a streaming answer: a style sheet is only parsed again on a change.
    if (tone == m_statusTone && text == m_statusLabel->text()) {
        return;
    }
    m_statusTone = tone;
    m_statusLabel->setText(text);
    applyStatusColour();
}

void OverlayPanelController::applyStatusColour()
{
    const QColor colour = statusColor();
    m_statusDotView->setColor(colour);
    QPalette palette = m_statusLabel->palette();
    palette.setColor(QPalette::WindowText, colour);
    m_statusLabel->setPalette(palette);
    m_statusLabel->setStyleSheet(QStringLiteral("color: %1;").arg(OverlayStyle::cssColour(colour)));
}

QString OverlayPanelController::statusText() const
{
    return m_statusLabel->text();
}

QColor OverlayPanelController::statusColor() const
{
    return m_colours.forTone(m_statusTone);
}

void OverlayPanelController::setInputEnabled(bool enabled)
{
    m_followUpField->setEnabled(enabled);
    m_sendButton->setEnabled(enabled);
}

void OverlayPanelController::refreshPinButton()
{
    m_pinButton->setChecked(m_isPinned);
    const QString tip = m_isPinned ? QStringLiteral("取消固定") : QStringLiteral("固定卡片");
    m_pinButton->setToolTip(tip);
    m_pinButton->setAccessibleName(tip);
}

void OverlayPanelController::present(const ProviderDefinition& provider, ExplanationDepth depth,
                                     const std::optional<QRect>& anchorRect)
{
    updateIdentity(provider, depth);
    setStatus(QStringLiteral("正在连接"), CardStatusTone::waiting);
    m_pendingFixField.reset();
    m_answerFollowsFallback = false;
    m_attemptUnanswered = false;

    m_sourceMarkdown.clear();
    m_responseStart = 0;
    m_renderTimer.stop();
    m_outputTextView->clear();

    m_followUpField->clear();
    setInputEnabled(false);
    m_stopButton->show();
    m_retryButton->hide();
    m_fixButton->hide();

    m_isPinned = false;
    m_isStreaming = false;
    refreshPinButton();

    if (m_pillPanel) {
        m_pillPanel->hide();
    }
    position(anchorRect);
    bringToFront(m_panel, false);
    startOutsideClickMonitor();
}

void OverlayPanelController::continueSession(const ProviderDefinition& provider, ExplanationDepth depth,
                                             const std::optional<QRect>& anchorRect)
{
    updateIdentity(provider, depth);
    m_answerFollowsFallback = false;
    m_followUpField->clear();
    setInputEnabled(false);
    m_stopButton->show();
    m_retryButton->hide();
    m_fixButton->hide();
    m_isStreaming = false;
    if (m_pillPanel) {
        m_pillPanel->hide();
    }
    if (!m_isPinned) {
        position(anchorRect);
    }
    bringToFront(m_panel, false);
    startOutsideClickMonitor();
}

void OverlayPanelController::beginResponse(bool isFollowUp)
{
    if (m_attemptUnanswered && !isFollowUp) {
        // A retry: its answer takes the place of the error or the stop it follows.
        m_sourceMarkdown.truncate(m_responseStart);
        renderImmediately();
    } else if (isFollowUp && m_sourceMarkdown.size() > m_responseStart) {
        appendSeparated(QStringLiteral("---\n\n"));
        renderImmediately();
    }
    m_attemptUnanswered = false;
    m_responseStart = m_sourceMarkdown.size();
    setStatus(QStringLiteral("正在连接"), CardStatusTone::waiting);
    m_isStreaming = true;
    m_stopButton->show();
    m_retryButton->hide();
    m_fixButton->hide();
    setInputEnabled(false);
    scrollToEnd();
}

void OverlayPanelController::appendText(const QString& piece)
{
    m_sourceMarkdown += piece;
    scheduleRender();
}

void OverlayPanelController::scheduleRender()
{
    // The pending render reads the newest text when it fires.
    if (!m_renderTimer.isActive()) {
        m_renderTimer.start();
    }
}

void OverlayPanelController::renderImmediately()
{
    m_renderTimer.stop();
    QScrollBar* bar = m_outputTextView->verticalScrollBar();
    // Someone who scrolled back to read the start keeps their place while the rest streams in.
    const bool followsEnd = bar->value() >= bar->maximum() - followEndTolerance;
    const int readingAt = bar->value();
    MarkdownRenderer::render(m_sourceMarkdown, *m_outputTextView->document(), m_colours);
    ++m_renderCount;
    if (followsEnd) {
        scrollToEnd();
    } else {
        m_outputTextView->document()->documentLayout()->documentSize();
        bar->setValue(readingAt);
    }
}

void OverlayPanelController::appendSeparated(const QString& text)
{
    m_sourceMarkdown += MarkdownRenderer::fenceCloser(m_sourceMarkdown);
    if (!m_sourceMarkdown.trimmed().isEmpty()) {
        while (!m_sourceMarkdown.endsWith(QStringLiteral("\n\n"))) {
            m_sourceMarkdown += u'\n';
        }
    }
    m_sourceMarkdown += text;
}

void OverlayPanelController::scrollToEnd()
{
    QScrollBar* bar = m_outputTextView->verticalScrollBar();
    m_outputTextView->document()
        ->documentLayout()
        ->documentSize(); // lays the text out, so the range is current
    bar->setValue(bar->maximum());
}

void OverlayPanelController::finish()
{
    if (m_sourceMarkdown.trimmed().isEmpty()) {
        showError(ProviderDiagnostics::diagnose(ProviderFailure(LLMClientError::emptyResponse())));
        return;
    }
    renderImmediately();
    if (m_answerFollowsFallback) {
        setStatus(QStringLiteral("已切换备用配置"), CardStatusTone::warning);
    } else {
        setStatus(QStringLiteral("已完成"), CardStatusTone::success);
    }
    m_fixButton->hide();
    endAnswer(false);
}

void OverlayPanelController::showError(const ProviderDiagnosis& diagnosis)
{
    m_pendingFixField = diagnosis.field;
    m_fixButton->setVisible(diagnosis.field.has_value());
    setStatus(diagnosis.field ? QStringLiteral("需要修改设置") : QStringLiteral("请求失败"),
              CardStatusTone::failure);

    if (m_sourceMarkdown.trimmed().isEmpty()) {
        m_sourceMarkdown.clear();
        m_responseStart = 0;
    }
    appendSeparated(QStringLiteral("⚠️ ") + diagnosis.message());
    m_attemptUnanswered = true;
    renderImmediately();
    endAnswer(true);
    scrollToEnd();
}

void OverlayPanelController::showStopped()
{
    renderImmediately();
    setStatus(QStringLiteral("已停止"), CardStatusTone::waiting);
    m_attemptUnanswered = true;
    m_fixButton->hide();
    endAnswer(true);
}

void OverlayPanelController::endAnswer(bool offerRetry)
{
    m_isStreaming = false;
    m_answerFollowsFallback = false;
    m_stopButton->hide();
    m_retryButton->setVisible(offerRetry);
    setInputEnabled(true);
}

void OverlayPanelController::showFallback(const ProviderDefinition& provider, ExplanationDepth depth,
                                          ProviderField failedField, const QString& notice)
{
    m_pendingFixField = failedField;
    m_answerFollowsFallback = true;
    m_attemptUnanswered = false;
    m_fixButton->hide();
    updateIdentity(provider, depth);
    setStatus(QStringLiteral("已切换备用配置"), CardStatusTone::warning);
    m_sourceMarkdown = notice;
    // The notice ends in its own rule: the answer follows it directly.
    m_responseStart = m_sourceMarkdown.size();
    renderImmediately();
}

void OverlayPanelController::togglePin()
{
    m_isPinned = !m_isPinned;
    refreshPinButton();
}

void OverlayPanelController::copyAnswer()
{
    QClipboard* clipboard = QGuiApplication::clipboard();
    clipboard->clear();
    clipboard->setText(m_outputTextView->toPlainText());
    setStatus(QStringLiteral("已复制"), CardStatusTone::success);
}

void OverlayPanelController::setScreenSource(std::function<QList<ScreenArea>()> screens)
{
    m_screenSource = std::move(screens);
}

void OverlayPanelController::setPointerSource(std::function<QPoint()> pointer)
{
    m_pointerSource = std::move(pointer);
}

QList<ScreenArea> OverlayPanelController::screens() const
{
    return m_screenSource ? m_screenSource() : OverlayGeometry::desktopScreens();
}

void OverlayPanelController::position(const std::optional<QRect>& anchorRect)
{
    if (m_fixedPlacement) {
        m_panel->moveBodyTo(
            OverlayGeometry::fixedPanelOrigin(m_panel->bodySize(), m_draggedOrigin, m_lastBody, screens()));
        m_lastBody = m_panel->bodyGeometry();
        return;
    }
    const QPoint mouse = m_pointerSource ? m_pointerSource() : QCursor::pos();
    m_panel->moveBodyTo(OverlayGeometry::panelOrigin(m_panel->bodySize(), anchorRect, mouse, screens()));
}

void OverlayPanelController::bringToFront(QWidget* window, bool fade)
{
    window->setWindowOpacity(fade ? 0.0 : 1.0);
    window->show();
    window->raise();
    X11Desktop::joinAllWorkspaces(*window);
    if (fade) {
        auto* animation = new QPropertyAnimation(window, "windowOpacity", window);
        animation->setDuration(fadeMs);
        animation->setStartValue(0.0);
        animation->setEndValue(1.0);
        animation->start(QAbstractAnimation::DeleteWhenStopped);
    }
}

void OverlayPanelController::startOutsideClickMonitor()
{
    m_outsideClicks->stop();
    QPointer<OverlayPanelController> self(this);
    m_outsideClicks->start([self](const QPoint& point) {
        if (self) {
            self->handleOutsideClick(point);
        }
    });
}

void OverlayPanelController::handleOutsideClick(const QPoint& point)
{
    if (m_panel->isVisible() && m_panel->bodyGeometry().contains(point)) {
        return;
    }
    if (m_pillPanel && m_pillPanel->isVisible() && m_pillPanel->bodyGeometry().contains(point)) {
        return;
    }
    if (OverlayGeometry::isMenuBarClick(point, screens()) || X11Desktop::isPanelAt(point)) {
        return;
    }
    // Our other windows (the tray menu, the settings) are not "elsewhere" either: the raw events report
    // our own clicks too.
    for (QWidget* window : QApplication::topLevelWidgets()) {
        if (window != m_panel && window != m_pillPanel && window->isVisible() &&
            window->geometry().contains(point)) {
            return;
        }
    }
    collapseToPill();
}

void OverlayPanelController::collapseToPill()
{
    if (m_isPinned || m_isStreaming || !m_panel->isVisible()) {
        return;
    }
    const QList<ScreenArea> areas = screens();
    const std::optional<ScreenArea> screen = OverlayGeometry::screenFor(m_panel->bodyGeometry(), areas);
    if (!screen) {
        return;
    }
    PillPanel* pill = pillPanel();
    const QSize size = pill->bodySize();
    const QPoint desired =
        m_pillOrigin.value_or(OverlayGeometry::defaultPillOrigin(size, screen->visibleFrame));
    pill->moveBodyTo(OverlayGeometry::pillOrigin(desired, size, screen->visibleFrame));
    bringToFront(pill, true);
    m_panel->hide();
}

void OverlayPanelController::restoreFromPill()
{
    if (m_pillPanel) {
        m_pillPanel->hide();
    }
    bringToFront(m_panel, true);
}

void OverlayPanelController::closeCard()
{
    if (m_pillPanel) {
        m_pillPanel->hide();
    }
    m_panel->close();
}

void OverlayPanelController::panelClosed()
{
    m_outsideClicks->stop();
    if (m_pillPanel) {
        m_pillPanel->hide();
    }
    if (m_callbacks.onClose) {
        m_callbacks.onClose();
    }
}

void OverlayPanelController::sendFollowUp()
{
    const QString question = m_followUpField->text().trimmed();
    if (question.isEmpty() || !m_sendButton->isEnabled()) {
        return;
    }
    m_followUpField->clear();
    if (m_callbacks.onFollowUp) {
        m_callbacks.onFollowUp(question);
    }
}

} // namespace velnora
