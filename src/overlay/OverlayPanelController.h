#pragma once

#include "flow/ExplanationCard.h"
#include "overlay/OutsideClickSource.h"
#include "overlay/OverlayGeometry.h"
#include "overlay/OverlayStyle.h"

#include <QObject>
#include <QPointer>
#include <QTimer>
#include <functional>
#include <memory>

class QLabel;
class QPushButton;
class QTextBrowser;

namespace velnora {

class ExplanationPanel;
class FollowUpField;
class PillPanel;
class ProviderIconView;
class StatusDotView;
class ToolbarButton;

// The floating explanation card beside the selection and the capsule it collapses into. Driven by the
// explanation coordinator through ExplanationCard; reports what the user wants through the callbacks.
// Main thread only.
class OverlayPanelController : public QObject, public ExplanationCard
{
    Q_OBJECT
public:
    // Renders are coalesced: at most one per this interval however fast pieces arrive.
    static constexpr int renderIntervalMs = 60;
    // How close to the end (pixels) the reader must be for a render to keep following the end.
    static constexpr int followEndTolerance = 4;

    explicit OverlayPanelController(
        std::unique_ptr<OutsideClickSource> clicks = OutsideClickSource::createDefault(),
        QObject* parent = nullptr);
    ~OverlayPanelController() override;

    // ExplanationCard
    void setCallbacks(Callbacks callbacks) override;
    void present(const ProviderDefinition& provider, ExplanationDepth depth,
                 const std::optional<QRect>& anchorRect) override;
    void continueSession(const ProviderDefinition& provider, ExplanationDepth depth,
                         const std::optional<QRect>& anchorRect) override;
    void beginResponse(bool isFollowUp) override;
    void appendText(const QString& piece) override;
    void finish() override;
    void showError(const ProviderDiagnosis& diagnosis) override;
    void showStopped() override;
    void setStatus(const QString& text, CardStatusTone tone) override;
    void showFallback(const ProviderDefinition& provider, ExplanationDepth depth, ProviderField failedField,
                      const QString& notice) override;

    void scheduleRender();
    void renderImmediately();
    void togglePin();
    void copyAnswer();
    void collapseToPill();
    void restoreFromPill();
    // Escape, the capsule's close control: hides the capsule and closes the card.
    void closeCard();

    // Where screens and the pointer come from; tests give fake multi-screen layouts.
    void setScreenSource(std::function<QList<ScreenArea>()> screens);
    void setPointerSource(std::function<QPoint()> pointer);
    // Without a pointer or a selection rectangle to go by (Wayland), the card keeps a fixed place.
    void setFixedPlacement(bool fixed) { m_fixedPlacement = fixed; }

    const QString& sourceMarkdown() const { return m_sourceMarkdown; }
    std::optional<ProviderField> pendingFixField() const { return m_pendingFixField; }
    QString statusText() const;
    CardStatusTone statusTone() const { return m_statusTone; }
    QColor statusColor() const;
    int renderCount() const { return m_renderCount; }
    bool isRenderPending() const { return m_renderTimer.isActive(); }

    ExplanationPanel* panel() const { return m_panel; }
    PillPanel* pillPanel(); // created on first use
    QTextBrowser* outputTextView() const { return m_outputTextView; }
    FollowUpField* followUpField() const { return m_followUpField; }
    QPushButton* sendButton() const { return m_sendButton; }
    QPushButton* stopButton() const { return m_stopButton; }
    QPushButton* retryButton() const { return m_retryButton; }
    QPushButton* fixButton() const { return m_fixButton; }

private:
    void buildCard();
    void applyColors();
    void updateIdentity(const ProviderDefinition& provider, ExplanationDepth depth);
    void setInputEnabled(bool enabled);
    void refreshPinButton();
    void scrollToEnd();
    void applyStatusColour();
    // The answer stopped arriving: stop gives way to the input, and to retry when asked for.
    void endAnswer(bool offerRetry);
    // Appends a block of its own: after any code listing left open and a paragraph break.
    void appendSeparated(const QString& text);
    void position(const std::optional<QRect>& anchorRect);
    void bringToFront(QWidget* window, bool fade);
    void startOutsideClickMonitor();
    void handleOutsideClick(const QPoint& point);
    void sendFollowUp();
    void panelClosed();
    QList<ScreenArea> screens() const;

    ExplanationPanel* m_panel = nullptr;
    ProviderIconView* m_providerIconView = nullptr;
    QLabel* m_providerTitleLabel = nullptr;
    QLabel* m_providerContextLabel = nullptr;
    StatusDotView* m_statusDotView = nullptr;
    QLabel* m_statusLabel = nullptr;
    QTextBrowser* m_outputTextView = nullptr;
    FollowUpField* m_followUpField = nullptr;
    QPushButton* m_sendButton = nullptr;
    QPushButton* m_stopButton = nullptr;
    QPushButton* m_retryButton = nullptr;
    QPushButton* m_fixButton = nullptr;
    ToolbarButton* m_pinButton = nullptr;
    ToolbarButton* m_copyButton = nullptr;
    ToolbarButton* m_closeButton = nullptr;
    std::unique_ptr<OutsideClickSource> m_outsideClicks;
    std::optional<QPoint> m_pillOrigin;
    QString m_sourceMarkdown;
    // Where the answer being streamed (or last attempted) begins in m_sourceMarkdown.
    qsizetype m_responseStart = 0;
    // The last attempt ended in an error or a stop without text: a retry replaces what it left.
    bool m_attemptUnanswered = false;
    // The answer being streamed comes from the fallback configuration.
    bool m_answerFollowsFallback = false;
    QTimer m_renderTimer;
    bool m_isStreaming = false;
    std::optional<ProviderField> m_pendingFixField;
    bool m_isPinned = false;
    Callbacks m_callbacks;
    QPointer<PillPanel> m_pillPanel;

    CardStatusTone m_statusTone = CardStatusTone::waiting;
    SemanticColors m_colours;
    int m_renderCount = 0;
    std::function<QList<ScreenArea>()> m_screenSource;
    std::function<QPoint()> m_pointerSource;
    bool m_fixedPlacement = false;
    std::optional<QPoint> m_draggedOrigin;
    std::optional<QRect> m_lastBody;
};

} // namespace velnora
