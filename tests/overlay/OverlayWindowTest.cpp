// The card as a real X11 window: shown without taking the focus, focus when the follow-up field is
// clicked, and collapse on a real click elsewhere, seen through XInput2 raw events.
#include "overlay/ExplanationPanel.h"
#include "overlay/FollowUpField.h"
#include "overlay/OverlayPanelController.h"
#include "overlay/PillPanel.h"
#include "overlay/XInputClickSource.h"
#include "support/TestEnvironment.h"

#include <QGuiApplication>
#include <QProcess>
#include <QSystemTrayIcon>
#include <QTest>
#include <QWindow>
#include <gtest/gtest.h>

namespace velnora {
namespace {

// xdotool drives the real pointer; the X server, not Qt, delivers what it does.
bool clickAt(const QPoint& point, int button = 1)
{
    return test::runProgram("xdotool", {"mousemove", QString::number(point.x()), QString::number(point.y()),
                                        "click", QString::number(button)})
               .exitCode == 0;
}

bool exposed(QWidget* window)
{
    return QTest::qWaitFor([&] { return window->windowHandle() && window->windowHandle()->isExposed(); });
}

// A finished answer in a card shown on the X server.
bool showAnswer(OverlayPanelController& card, const QString& answer)
{
    card.present(ProviderDefinition::definition("kimi"), ExplanationDepth::balanced,
                 QRect(300, 150, 200, 18));
    card.beginResponse(false);
    card.appendText(answer);
    card.finish();
    return exposed(card.panel());
}

TEST(OverlayWindowTest, CardTakesFocusOnlyWhenClickedAndCollapsesOnARealClickElsewhere)
{
    if (QGuiApplication::platformName() != u"xcb") {
        GTEST_SKIP() << "needs the X server of scripts/desktop-session.sh";
    }
    OverlayPanelController card(std::make_unique<XInputClickSource>());
    ASSERT_TRUE(showAnswer(card, "窗口里的回答"));
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

// xprop, not our own code, reads what the window manager is told about a window.
QString windowProperties(QWidget* window)
{
    return test::runProgram("xprop",
                            {"-id", QString::number(window->winId()), "_NET_WM_DESKTOP", "_NET_WM_STATE"})
        .out;
}

TEST(OverlayWindowTest, CardAndCapsuleFollowTheUserAcrossWorkspacesAndTheTrayMenuLeavesThemOpen)
{
    if (QGuiApplication::platformName() != u"xcb") {
        GTEST_SKIP() << "needs the X server of scripts/desktop-session.sh";
    }
    // A tray host along the bottom edge that reserves no screen space: with no window manager, nothing does.
    QProcess trayer;
    trayer.start("trayer",
                 {"--edge", "bottom", "--align", "right", "--widthtype", "request", "--height", "24"});
    ASSERT_TRUE(trayer.waitForStarted());
    ASSERT_TRUE(QTest::qWaitFor([] { return QSystemTrayIcon::isSystemTrayAvailable(); }, 5000));
    QPixmap mark(22, 22);
    mark.fill(Qt::darkCyan);
    QSystemTrayIcon tray{QIcon(mark)};
    tray.show();
    ASSERT_TRUE(
        QTest::qWaitFor([&] { return tray.geometry().isValid() && !tray.geometry().isEmpty(); }, 5000));

    OverlayPanelController card(std::make_unique<XInputClickSource>());
    ASSERT_TRUE(showAnswer(card, "回答"));
    const QString cardState = windowProperties(card.panel());
    EXPECT_TRUE(cardState.contains("_NET_WM_DESKTOP(CARDINAL) = 4294967295")) << cardState.toStdString();
    EXPECT_TRUE(cardState.contains("_NET_WM_STATE_STICKY")) << cardState.toStdString();

    ASSERT_TRUE(clickAt(tray.geometry().center(), 3)); // where the tray menu opens
    EXPECT_FALSE(QTest::qWaitFor([&] { return !card.panel()->isVisible(); }, 400));

    ASSERT_TRUE(clickAt(QPoint(1000, 700)));
    ASSERT_TRUE(QTest::qWaitFor([&] { return !card.panel()->isVisible(); }));
    ASSERT_TRUE(exposed(card.pillPanel()));
    EXPECT_TRUE(windowProperties(card.pillPanel()).contains("_NET_WM_STATE_STICKY"));

    tray.hide();
    trayer.terminate();
    trayer.waitForFinished(3000);
}

} // namespace
} // namespace velnora
