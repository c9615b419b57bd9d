#pragma once

#include "config/ProviderCatalog.h"
#include "llm/ProviderDiagnostics.h"

#include <QRect>
#include <QString>
#include <functional>
#include <optional>

namespace velnora {

// How a status line is coloured; the card maps each tone onto its own palette.
enum class CardStatusTone {
    waiting, // tertiary label
    working, // blue
    success, // green
    warning, // orange
    failure, // red
};

// What the explanation coordinator needs of the card that shows an answer. The coordinator lives in
// velnora_core and never sees a widget; the overlay implements this, tests use a fake.
class ExplanationCard
{
public:
    // What the user asked the card to do.
    struct Callbacks
    {
        std::function<void(const QString& question)> onFollowUp; // trimmed, never empty
        std::function<void()> onStop;
        std::function<void()> onRetry;
        std::function<void(ProviderField field)> onFixConfiguration;
        std::function<void()> onClose;
    };

    virtual ~ExplanationCard() = default;

    virtual void setCallbacks(Callbacks callbacks) = 0;

    // A new explanation: clears the card and shows it beside the anchor (global logical coordinates;
    // the mouse position when absent) without taking the keyboard focus.
    virtual void present(const ProviderDefinition& provider, ExplanationDepth depth,
                         const std::optional<QRect>& anchorRect) = 0;
    // A further selection in the same session: keeps the text, re-opens the card.
    virtual void continueSession(const ProviderDefinition& provider, ExplanationDepth depth,
                                 const std::optional<QRect>& anchorRect) = 0;
    // An answer starts; a follow-up's answer is set off from the previous one by a rule.
    virtual void beginResponse(bool isFollowUp) = 0;
    // A piece of the answer; the card re-renders at most once per 0.06 s.
    virtual void appendText(const QString& piece) = 0;
    // The stream ended normally (an answer without visible text is reported as a failure).
    virtual void finish() = 0;
    // The stream failed; a diagnosis with a field offers "去设置".
    virtual void showError(const ProviderDiagnosis& diagnosis) = 0;
    // The user stopped the answer before any of its text arrived; retry is offered.
    virtual void showStopped() = 0;
    virtual void setStatus(const QString& text, CardStatusTone tone) = 0;
    // The session switched to the last configuration that worked after a failure on `failedField`:
    // the card shows the new identity and replaces its text with `notice` at once. The fix button
    // stays hidden, and only the answer that follows finishes as "已切换备用配置".
    virtual void showFallback(const ProviderDefinition& provider, ExplanationDepth depth,
                              ProviderField failedField, const QString& notice) = 0;
};

} // namespace velnora
