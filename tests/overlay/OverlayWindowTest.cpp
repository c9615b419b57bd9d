// The card as a real X11 window: shown without taking the focus, focus when the follow-up field is
// clicked, and collapse on a real click elsewhere, seen through XInput2 raw events.
#include "OverlayTestSupport.h"

#include "overlay/ExplanationPanel.h"
#include "overlay/FollowUpField.h"
#include "overlay/OverlayPanelController.h"
#include "overlay/PillPanel.h"
#include "overlay/XInputClickSource.h"

#include <QGuiApplication>
#include <QProcess>
#include <QWindow>

#include <gtest/gtest.h>

namespace velnora {
namespace {

using test::waitUntil;

// xdotool drives the real pointer; the X server, not Qt, delivers what it does.
bool xdotool(const QStringList& arguments)
{
    QProcess process;
    process.start(QStringLiteral("xdotool"), arguments);
    return process.waitForFinished(5000) && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
}

bool clickAt(const QPoint& point, int button = 1)
{
    return xdotool({QStringLiteral("mousemove"), QString::number(point.x()), QString::number(point.y()),
                    QStringLiteral("click"), QString::number(button)});
}

class OverlayWindowTest : public testing::Test
{
protected:
    void SetUp() override
    {
        if (QGuiApplication::platformName() != u"xcb") {
            GTEST_SKIP() << "needs the X server of scripts/desktop-session.sh";
        }
        card = std::make_unique<OverlayPanelController>(std::make_unique<XInputClickSource>());
        card->present(ProviderDefinition::definition(QStringLiteral("kimi")), ExplanationDepth::balanced,
                      QRect(300, 150, 200, 18));
        ASSERT_TRUE(waitUntil([&] { return card->panel()->windowHandle() && card->panel()->windowHandle()->isExposed(); }));
        card->beginResponse(false);
        card->appendText(QStringLiteral("窗口里的回答"));
        card->finish();
        // The X server maps the window asynchronously; let it settle before clicking.
        QCoreApplication::processEvents();
    }

    std::unique_ptr<OverlayPanelController> card;
};

TEST_F(OverlayWindowTest, CardIsAFramelessToolWindowOnTopShownWithoutFocus)
{
    const Qt::WindowFlags flags = card->panel()->windowFlags();
    EXPECT_TRUE(flags.testFlag(Qt::Tool));
    EXPECT_TRUE(flags.testFlag(Qt::FramelessWindowHint));
    EXPECT_TRUE(flags.testFlag(Qt::WindowStaysOnTopHint));
    EXPECT_NE(QGuiApplication::focusWindow(), card->panel()->windowHandle());
    EXPECT_FALSE(card->followUpField()->hasFocus());
}

TEST_F(OverlayWindowTest, ClickingTheFollowUpFieldGivesItTheFocus)
{
    FollowUpField* field = card->followUpField();
    const QPoint centre = field->mapToGlobal(field->rect().center());
    ASSERT_TRUE(clickAt(centre));
    EXPECT_TRUE(waitUntil([&] { return field->hasFocus(); }));
    ASSERT_TRUE(xdotool({QStringLiteral("type"), QStringLiteral("why")}));
    EXPECT_TRUE(waitUntil([&] { return field->text() == u"why"; }));
}

TEST_F(OverlayWindowTest, RealClickElsewhereCollapsesAndClicksOnTheCardDoNot)
{
    // Raw presses carry no position: each is handled before the pointer moves on, as a hand would.
    auto collapsesWithin = [&](int milliseconds) {
        return waitUntil([&] { return !card->panel()->isVisible(); }, milliseconds);
    };
    ASSERT_TRUE(clickAt(card->panel()->bodyGeometry().center()));
    EXPECT_FALSE(collapsesWithin(400));
    // The wheel over another window is not a click either.
    ASSERT_TRUE(clickAt(QPoint(1100, 900), 4));
    EXPECT_FALSE(collapsesWithin(400));

    ASSERT_TRUE(clickAt(QPoint(1100, 900), 3));
    ASSERT_TRUE(waitUntil([&] { return !card->panel()->isVisible(); }));
    PillPanel* pill = card->pillPanel();
    EXPECT_TRUE(pill->isVisible());

    // A real click on the capsule restores the card with its text.
    ASSERT_TRUE(waitUntil([&] { return pill->windowHandle() && pill->windowHandle()->isExposed(); }));
    ASSERT_TRUE(clickAt(pill->bodyGeometry().center() - QPoint(pill->bodySize().width() / 4, 0)));
    ASSERT_TRUE(waitUntil([&] { return card->panel()->isVisible(); }));
    EXPECT_FALSE(pill->isVisible());
}

} // namespace
} // namespace velnora
