#include "overlay/OverlayPanelController.h"

#include "overlay/CardProbe.h"
#include "overlay/ExplanationPanel.h"
#include "overlay/FollowUpField.h"
#include "overlay/PillPanel.h"
#include "overlay/ToolbarButton.h"

#include <QApplication>
#include <QKeyEvent>
#include <QPushButton>
#include <QTest>
#include <QTextBrowser>
#include <gtest/gtest.h>

namespace velnora {
namespace {

using test::FakeClickSource;

// One screen with a 30-pixel top panel.
const QList<ScreenArea> fakeScreens{{QRect(0, 0, 1280, 1024), QRect(0, 30, 1280, 994)}};

class OverlayPanelControllerTest : public testing::Test
{
protected:
    OverlayPanelControllerTest()
    {
        card->setScreenSource([] { return fakeScreens; });
        ExplanationCard::Callbacks callbacks;
        callbacks.onFollowUp = [this](const QString& question) { calls << "followUp:" + question; };
        callbacks.onStop = [this] { calls << "stop"; };
        callbacks.onRetry = [this] { calls << "retry"; };
        callbacks.onFixConfiguration = [this](ProviderField field) {
            calls << QString("fix:%1").arg(int(field));
        };
        callbacks.onClose = [this] { calls << "close"; };
        card->setCallbacks(std::move(callbacks));
    }

    void present()
    {
        card->present(ProviderDefinition::definition("doubao"), ExplanationDepth::balanced,
                      QRect(400, 200, 120, 18));
        card->beginResponse(false);
    }

    QString state() const { return test::offeredState(*card); }
    QString shownText() const { return card->outputTextView()->toPlainText(); }
    bool cardVisible() const { return card->panel()->isVisible(); }

    FakeClickSource* clicks = new FakeClickSource;
    std::unique_ptr<OverlayPanelController> card =
        std::make_unique<OverlayPanelController>(std::unique_ptr<OutsideClickSource>(clicks));
    QStringList calls;
};

TEST_F(OverlayPanelControllerTest, StreamingIsRenderedCoalescedAndFollowUpsAreSetOffByARule)
{
    present();
    EXPECT_EQ(state(), "正在连接 停止") << "nothing has arrived yet";
    const int before = card->renderCount();
    for (int i = 0; i < 50; ++i) {
        card->appendText(QString("字%1").arg(i));
    }
    EXPECT_EQ(card->renderCount(), before);
    ASSERT_TRUE(QTest::qWaitFor([&] { return !card->isRenderPending(); }));
    EXPECT_EQ(card->renderCount(), before + 1);
    EXPECT_TRUE(shownText().endsWith("字49"));
    card->appendText("**末尾**");
    card->finish();
    EXPECT_TRUE(shownText().endsWith("字49末尾"));
    EXPECT_EQ(state(), "已完成 追问");

    // The question is sent trimmed, once, and never while an answer streams.
    card->followUpField()->setText("  为什么会这样？ ");
    QKeyEvent enter(QEvent::KeyPress, Qt::Key_Return, Qt::NoModifier);
    QApplication::sendEvent(card->followUpField(), &enter);
    EXPECT_TRUE(card->followUpField()->text().isEmpty());
    card->beginResponse(true);
    EXPECT_TRUE(card->sourceMarkdown().endsWith("字49**末尾**\n\n---\n\n"));
    card->followUpField()->setText("正在回答时");
    QApplication::sendEvent(card->followUpField(), &enter);
    card->stopButton()->click();
    EXPECT_EQ(calls, (QStringList{"followUp:为什么会这样？", "stop"}));
}

TEST_F(OverlayPanelControllerTest, FailuresKeepThePartialAnswerAndOfferRetryAndTheFixWhenThereIsOne)
{
    present();
    card->appendText(" \n\t ");
    card->finish();
    EXPECT_EQ(shownText(), "⚠️ 模型没有返回可显示的文字。");
    EXPECT_EQ(state(), "请求失败 重试 追问");

    const ProviderDiagnosis badKey{"API Key 无效。", ProviderField::apiKey, std::nullopt};
    present();
    card->appendText("已经说了一半");
    card->showError(badKey);
    EXPECT_EQ(card->sourceMarkdown(), "已经说了一半\n\n⚠️ " + badKey.message());
    EXPECT_EQ(state(), "需要修改设置 重试 去设置 追问");
    card->fixButton()->click();
    card->retryButton()->click();
    EXPECT_EQ(calls, (QStringList{QString("fix:%1").arg(int(ProviderField::apiKey)), "retry"}));
}

TEST_F(OverlayPanelControllerTest, FallbackSwitchesTheIdentityUntilTheNextSelection)
{
    present();
    const QString notice = "⚠️ 已临时改用上次可用的模型。";
    card->showFallback(ProviderDefinition::definition("deepseek"), ExplanationDepth::balanced,
                       ProviderField::model, notice);
    EXPECT_EQ(state(), "已切换备用配置 停止");
    card->beginResponse(false);
    card->appendText("备用模型的回答");
    card->finish();
    EXPECT_EQ(state(), "已切换备用配置 追问");
    EXPECT_EQ(card->sourceMarkdown(), notice + "备用模型的回答");

    present(); // a new selection leaves the fallback behind
    card->appendText("答");
    card->finish();
    EXPECT_EQ(state(), "已完成 追问");
}

TEST_F(OverlayPanelControllerTest, OutsideClickCollapsesAFinishedUnpinnedCardToTheCapsule)
{
    present();
    const auto clickElsewhere = [&] { clicks->handle(QPoint(1000, 900)); };
    clickElsewhere();
    EXPECT_TRUE(cardVisible()) << "a streaming card stays";
    card->appendText("好了");
    card->finish();
    card->togglePin();
    clickElsewhere();
    EXPECT_TRUE(cardVisible()) << "a pinned card stays";
    card->togglePin();
    clicks->handle(card->panel()->bodyGeometry().center());
    clicks->handle(QPoint(1000, 10)); // the top panel, where the tray menu opens
    EXPECT_TRUE(cardVisible());

    clickElsewhere();
    PillPanel* pill = card->pillPanel();
    EXPECT_FALSE(cardVisible());
    EXPECT_TRUE(pill->isVisible());
    // Right edge of the card's screen, vertically centred.
    EXPECT_EQ(pill->bodyGeometry().topRight() + QPoint(1, 0), QPoint(1280 - 12, 30 + 994 / 2 - 25));
    clicks->handle(pill->bodyGeometry().center());
    EXPECT_TRUE(pill->isVisible());
    card->restoreFromPill();
    EXPECT_TRUE(cardVisible() && !pill->isVisible());
    EXPECT_EQ(shownText(), "好了");

    card->collapseToPill();
    pill->closeControl()->click();
    EXPECT_FALSE(cardVisible() || pill->isVisible());
    EXPECT_FALSE(clicks->isActive());
    EXPECT_EQ(calls, QStringList{"close"});
}

} // namespace
} // namespace velnora
