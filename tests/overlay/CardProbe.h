#pragma once

#include "overlay/ExplanationPanel.h"
#include "overlay/OverlayPanelController.h"

#include <QPushButton>
#include <QStringList>
#include <QTextBrowser>

namespace velnora::test {

// Clicks where no pointer can reach: the desktop's real source cannot be told where to click.
class FakeClickSource : public OutsideClickSource
{
public:
    bool start(Handler handler) override
    {
        handle = std::move(handler);
        return true;
    }
    void stop() override { handle = nullptr; }
    bool isActive() const override { return handle != nullptr; }

    Handler handle;
};

// The status and what the user can press: the card's state as the user sees it.
inline QString offeredState(const OverlayPanelController& card)
{
    QStringList offered{card.statusText()};
    for (QPushButton* button : {card.stopButton(), card.retryButton(), card.fixButton(), card.sendButton()}) {
        if (button->isVisibleTo(card.panel()) && button->isEnabled()) {
            offered << button->text();
        }
    }
    return offered.join(" ");
}

} // namespace velnora::test
