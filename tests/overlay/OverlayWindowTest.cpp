// The card as a real X11 window: shown without taking the focus, focus when the follow-up field is
// clicked, and collapse on a real click elsewhere, seen through XInput2 raw events.
#include "overlay/ExplanationPanel.h"
#include "overlay/FollowUpField.h"
#include "overlay/OverlayPanelController.h"
#include "overlay/PillPanel.h"
#include "overlay/XInputClickSource.h"

#include <QGuiApplication>
#include <QProcess>
#include <QTest>
#include <QWindow>
#include <gtest/gtest.h>

namespace velnora {
namespace {

// xdotool drives the real pointer; the X server, not Qt, delivers what it does.
bool clickAt(const QPoint& point, int button = 1)
{
    QProcess process;
    process.start("xdotool", {"mousemove", QString::number(point.x()), QString::number(point.y()), "click",
                              QString::number(button)});
    return process.waitForFinished(5000) && process.exitStatus() == QProcess::NormalExit &&
           process.exitCode() == 0;
}

bool exposed(QWidget* window)
{
    return QTest::qWaitFor([&] { return window->windowHandle() && window->windowHandle()->isExposed(); });
}

TEST(OverlayWindowTest, CardTakesFocusOnlyWhenClickedAndCollapsesOnARealClickElsewhere)
{
    if (QGuiApplication::platformName() != u"xcb") {
        GTEST_SKIP() << "needs the X server of scripts/desktop-session.sh";
    }
    OverlayPanelController card(std::make_unique<XInputClickSource>());
    card.present(ProviderDefinition::definition("kimi"), ExplanationDepth::balanced,
                 QRect(300, 150, 200, 18));
    ASSERT_TRUE(exposed(card.panel()));
    card.beginResponse(false);
    card.appendText("窗口里的回答");
    card.finish();
    EXPECT_NE(QGuiApplication::focusWindow(), card.panel()->windowHandle());

    // Raw presses carry no position: each is handled before the pointer moves on, as a hand would.
    FollowUpField* field = card.followUpField();
    ASSERT_TRUE(clickAt(field->mapToGlobal(field->rect().center())));
    EXPECT_TRUE(QTest::qWaitFor([&] { return field->hasFocus(); }));
    ASSERT_TRUE(clickAt(QPoint(1100, 900), 4)); // the wheel over another window is not a click
    EXPECT_FALSE(QTest::qWaitFor([&] { return !card.panel()->isVisible(); }, 400));

    ASSERT_TRUE(clickAt(QPoint(1100, 900), 3));
    ASSERT_TRUE(QTest::qWaitFor([&] { return !card.panel()->isVisible(); }));
    PillPanel* pill = card.pillPanel();
    EXPECT_TRUE(pill->isVisible());
    // A real click on the capsule restores the card.
    ASSERT_TRUE(exposed(pill));
    ASSERT_TRUE(clickAt(pill->bodyGeometry().center() - QPoint(pill->bodySize().width() / 4, 0)));
    EXPECT_TRUE(QTest::qWaitFor([&] { return card.panel()->isVisible() && !pill->isVisible(); }));
}

} // namespace
} // namespace velnora
