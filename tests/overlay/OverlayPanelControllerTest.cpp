#include "OverlayTestSupport.h"

#include "overlay/ExplanationPanel.h"
#include "overlay/FollowUpField.h"
#include "overlay/MarkdownRenderer.h"
#include "overlay/OverlayPanelController.h"
#include "overlay/PillPanel.h"
#include "overlay/ProviderIconView.h"
#include "overlay/ToolbarButton.h"

#include <QApplication>
#include <QClipboard>
#include <QKeyEvent>
#include <QLabel>
#include <QPushButton>
#include <QTextBrowser>

#include <gtest/gtest.h>

#include <cmath>

namespace velnora {
namespace {

using test::FakeClickSource;
using test::waitUntil;

// One screen with a 30-pixel top panel, and a second one to its right.
const QList<ScreenArea> fakeScreens{{QRect(0, 0, 1280, 1024), QRect(0, 30, 1280, 994)},
                                    {QRect(1280, 0, 1600, 900), QRect(1280, 0, 1600, 900)}};

class OverlayPanelControllerTest : public testing::Test
{
protected:
    OverlayPanelControllerTest()
    {
        auto source = std::make_unique<FakeClickSource>();
        clicks = source.get();
        card = std::make_unique<OverlayPanelController>(std::move(source));
        card->setScreenSource([] { return fakeScreens; });
        card->setPointerSource([] { return QPoint(640, 500); });
        ExplanationCard::Callbacks callbacks;
        callbacks.onFollowUp = [this](const QString& question) { followUps << question; };
        callbacks.onStop = [this] { ++stops; };
        callbacks.onRetry = [this] { ++retries; };
        callbacks.onFixConfiguration = [this](ProviderField field) { fixes.push_back(field); };
        callbacks.onClose = [this] { ++closes; };
        card->setCallbacks(std::move(callbacks));
    }

    const ProviderDefinition& doubao = ProviderDefinition::definition(QStringLiteral("doubao"));

    void presentAnswered(const QString& answer = QStringLiteral("**答案**就在这里。"))
    {
        card->present(doubao, ExplanationDepth::balanced, QRect(400, 200, 120, 18));
        card->beginResponse(false);
        card->appendText(answer);
        card->finish();
    }

    QString shownText() const { return card->outputTextView()->toPlainText(); }
    bool cardVisible() const { return card->panel()->isVisible(); }
    bool pillVisible() const { return card->pillPanel()->isVisible(); }
    static bool shown(QWidget* widget) { return widget->isVisibleTo(widget->window()); }

    FakeClickSource* clicks = nullptr;
    std::unique_ptr<OverlayPanelController> card;
    QStringList followUps;
    int stops = 0;
    int retries = 0;
    int closes = 0;
    std::vector<ProviderField> fixes;
};

TEST_F(OverlayPanelControllerTest, PresentOpensAConnectingCardBesideTheSelection)
{
    card->present(doubao, ExplanationDepth::deep, QRect(400, 200, 120, 18));
    EXPECT_TRUE(cardVisible());
    EXPECT_EQ(card->panel()->bodyGeometry(), QRect(460 - 230, 230, 460, 400));
    EXPECT_EQ(card->statusText(), QStringLiteral("正在连接"));
    EXPECT_EQ(card->statusTone(), CardStatusTone::waiting);
    EXPECT_EQ(card->providerTitleLabel()->text(), doubao.compactTitle());
    EXPECT_TRUE(card->providerContextLabel()->text().contains(QStringLiteral("深入")));
    EXPECT_EQ(card->providerIconView()->providerId(), QStringLiteral("doubao"));
    EXPECT_EQ(card->currentDepth(), ExplanationDepth::deep);
    EXPECT_FALSE(card->followUpField()->isEnabled());
    EXPECT_FALSE(card->sendButton()->isEnabled());
    EXPECT_TRUE(shown(card->stopButton()));
    EXPECT_FALSE(shown(card->retryButton()));
    EXPECT_FALSE(shown(card->fixButton()));
    EXPECT_TRUE(clicks->isActive());
    EXPECT_EQ(card->followUpField()->placeholderText(), QStringLiteral("继续追问…"));
}

TEST_F(OverlayPanelControllerTest, PresentClearsThePreviousExplanation)
{
    presentAnswered();
    card->togglePin();
    card->showError({QStringLiteral("模型名称不对。"), ProviderField::model, std::nullopt});
    card->present(doubao, ExplanationDepth::fast, std::nullopt);
    EXPECT_TRUE(card->sourceMarkdown().isEmpty());
    EXPECT_TRUE(shownText().isEmpty());
    EXPECT_FALSE(card->pendingFixField());
    EXPECT_FALSE(card->isPinned());
    EXPECT_FALSE(shown(card->fixButton()));
    // No anchor: beside the pointer.
    EXPECT_EQ(card->panel()->bodyGeometry().topLeft(), QPoint(640 - 230, 513));
}

TEST_F(OverlayPanelControllerTest, StreamingPiecesAreCoalescedIntoOneRender)
{
    card->present(doubao, ExplanationDepth::balanced, std::nullopt);
    card->beginResponse(false);
    EXPECT_EQ(card->statusText(), QStringLiteral("正在解释"));
    EXPECT_EQ(card->statusTone(), CardStatusTone::working);
    EXPECT_TRUE(card->isStreaming());

    const int before = card->renderCount();
    for (int i = 0; i < 50; ++i) {
        card->appendText(QStringLiteral("字%1").arg(i));
    }
    EXPECT_EQ(card->renderCount(), before);
    ASSERT_TRUE(waitUntil([&] { return !card->isRenderPending(); }));
    EXPECT_EQ(card->renderCount(), before + 1);
    EXPECT_TRUE(shownText().startsWith(QStringLiteral("字0字1")));
    EXPECT_TRUE(shownText().endsWith(QStringLiteral("字49")));

    card->appendText(QStringLiteral("**末尾**"));
    card->finish();
    EXPECT_FALSE(card->isRenderPending());
    EXPECT_TRUE(shownText().endsWith(QStringLiteral("字49末尾")));
    EXPECT_EQ(card->statusText(), QStringLiteral("已完成"));
    EXPECT_EQ(card->statusTone(), CardStatusTone::success);
    EXPECT_FALSE(card->isStreaming());
    EXPECT_TRUE(card->followUpField()->isEnabled());
    EXPECT_TRUE(card->sendButton()->isEnabled());
    EXPECT_FALSE(shown(card->stopButton()));
    EXPECT_FALSE(shown(card->retryButton()));
    EXPECT_FALSE(shown(card->fixButton()));
}

TEST_F(OverlayPanelControllerTest, AnAnswerWithoutVisibleTextFinishesAsAFailure)
{
    card->present(doubao, ExplanationDepth::balanced, std::nullopt);
    card->beginResponse(false);
    card->appendText(QStringLiteral(" \n\t "));
    card->finish();
    EXPECT_EQ(card->statusText(), QStringLiteral("请求失败"));
    EXPECT_EQ(card->statusTone(), CardStatusTone::failure);
    EXPECT_EQ(shownText(), QStringLiteral("⚠️ 模型没有返回可显示的文字。"));
    EXPECT_TRUE(shown(card->retryButton()));
    EXPECT_FALSE(shown(card->fixButton()));
}

TEST_F(OverlayPanelControllerTest, ErrorNamingAFieldOffersTheFixButtonAndKeepsThePartialAnswer)
{
    card->present(doubao, ExplanationDepth::balanced, std::nullopt);
    card->beginResponse(false);
    card->appendText(QStringLiteral("已经说了一半"));
    const ProviderDiagnosis diagnosis{QStringLiteral("API Key 无效。"), ProviderField::apiKey, std::nullopt};
    card->showError(diagnosis);
    EXPECT_EQ(card->statusText(), QStringLiteral("需要修改设置"));
    EXPECT_EQ(card->statusTone(), CardStatusTone::failure);
    EXPECT_EQ(card->sourceMarkdown(), QStringLiteral("已经说了一半\n\n⚠️ ") + diagnosis.message());
    EXPECT_EQ(card->pendingFixField(), ProviderField::apiKey);
    EXPECT_TRUE(shown(card->fixButton()));
    EXPECT_TRUE(shown(card->retryButton()));
    EXPECT_FALSE(shown(card->stopButton()));
    EXPECT_TRUE(card->followUpField()->isEnabled());
    EXPECT_FALSE(card->isStreaming());

    card->fixButton()->click();
    card->retryButton()->click();
    ASSERT_EQ(fixes.size(), 1u);
    EXPECT_EQ(fixes.front(), ProviderField::apiKey);
    EXPECT_EQ(retries, 1);
}

TEST_F(OverlayPanelControllerTest, ErrorWithoutAFieldOffersOnlyRetry)
{
    card->present(doubao, ExplanationDepth::balanced, std::nullopt);
    card->beginResponse(false);
    card->appendText(QStringLiteral("\n  \n"));
    card->showError({QStringLiteral("请求过于频繁。"), std::nullopt, QStringLiteral("rate limited")});
    EXPECT_EQ(card->statusText(), QStringLiteral("请求失败"));
    EXPECT_TRUE(card->sourceMarkdown().startsWith(QStringLiteral("⚠️ 请求过于频繁。")));
    EXPECT_FALSE(shown(card->fixButton()));
    EXPECT_TRUE(shown(card->retryButton()));
    EXPECT_FALSE(card->pendingFixField());
}

TEST_F(OverlayPanelControllerTest, FollowUpAnswerIsSetOffByARule)
{
    presentAnswered(QStringLiteral("第一个回答"));
    card->beginResponse(true);
    EXPECT_EQ(card->sourceMarkdown(), QStringLiteral("第一个回答\n\n---\n\n"));
    EXPECT_EQ(shownText(), QStringLiteral("第一个回答\n") + MarkdownRenderer::horizontalRuleText());
    card->appendText(QStringLiteral("第二个回答"));
    card->finish();
    EXPECT_TRUE(shownText().endsWith(MarkdownRenderer::horizontalRuleText() + QStringLiteral("\n第二个回答")));

    // Nothing to separate from: no rule.
    card->present(doubao, ExplanationDepth::balanced, std::nullopt);
    card->beginResponse(true);
    EXPECT_TRUE(card->sourceMarkdown().isEmpty());
}

TEST_F(OverlayPanelControllerTest, SendingPassesTheTrimmedQuestionOnce)
{
    presentAnswered();
    card->followUpField()->setText(QStringLiteral("  为什么会这样？ "));
    QKeyEvent enter(QEvent::KeyPress, Qt::Key_Return, Qt::NoModifier);
    QApplication::sendEvent(card->followUpField(), &enter);
    EXPECT_EQ(followUps, QStringList{QStringLiteral("为什么会这样？")});
    EXPECT_TRUE(card->followUpField()->text().isEmpty());

    card->followUpField()->setText(QStringLiteral("   "));
    card->sendButton()->click();
    EXPECT_EQ(followUps.size(), 1);

    card->beginResponse(true);
    card->stopButton()->click();
    EXPECT_EQ(stops, 1);
}

TEST_F(OverlayPanelControllerTest, FallbackShowsTheNewIdentityAndFinishesAsSwitched)
{
    card->present(doubao, ExplanationDepth::balanced, std::nullopt);
    card->beginResponse(false);
    const auto& deepseek = ProviderDefinition::definition(QStringLiteral("deepseek"));
    const QString notice = QStringLiteral("⚠️ 模型名称不对。\n\n已临时改用上次可用的模型 `deepseek-v4-flash` 继续解释。");
    card->showFallback(deepseek, ExplanationDepth::balanced, ProviderField::model, notice);
    EXPECT_EQ(card->statusText(), QStringLiteral("已切换备用配置"));
    EXPECT_EQ(card->statusTone(), CardStatusTone::warning);
    EXPECT_EQ(card->providerTitleLabel()->text(), deepseek.compactTitle());
    EXPECT_EQ(card->sourceMarkdown(), notice);
    EXPECT_TRUE(shownText().contains(QStringLiteral("deepseek-v4-flash")));
    EXPECT_FALSE(shown(card->fixButton()));

    card->beginResponse(false);
    card->appendText(QStringLiteral("备用模型的回答"));
    card->finish();
    EXPECT_EQ(card->statusText(), QStringLiteral("已切换备用配置"));
    EXPECT_EQ(card->statusTone(), CardStatusTone::warning);
    EXPECT_FALSE(shown(card->fixButton()));
}

TEST_F(OverlayPanelControllerTest, OutsideClickCollapsesOnlyAFinishedUnpinnedCard)
{
    card->present(doubao, ExplanationDepth::balanced, QRect(400, 200, 120, 18));
    card->beginResponse(false);
    clicks->click(QPoint(1000, 900));
    EXPECT_TRUE(cardVisible()) << "a streaming card stays";
    card->appendText(QStringLiteral("好了"));
    card->finish();

    card->togglePin();
    EXPECT_EQ(card->pinButton()->toolTip(), QStringLiteral("取消固定"));
    clicks->click(QPoint(1000, 900));
    EXPECT_TRUE(cardVisible()) << "a pinned card stays";
    card->togglePin();
    EXPECT_EQ(card->pinButton()->toolTip(), QStringLiteral("固定卡片"));

    clicks->click(card->panel()->bodyGeometry().center());
    clicks->click(QPoint(1000, 10)); // the top panel, where the tray menu opens
    EXPECT_TRUE(cardVisible());

    clicks->click(QPoint(1000, 900));
    EXPECT_FALSE(cardVisible());
    EXPECT_TRUE(pillVisible());
    // The capsule: right edge of the card's screen, vertically centred.
    const QRect pill = card->pillPanel()->bodyGeometry();
    EXPECT_EQ(pill.right() + 1, 1280 - 12);
    EXPECT_EQ(pill.center().y(), 30 + 994 / 2 - 1);

    clicks->click(pill.center());
    EXPECT_TRUE(pillVisible());
    card->restoreFromPill();
    EXPECT_TRUE(cardVisible());
    EXPECT_FALSE(pillVisible());
    EXPECT_EQ(shownText(), QStringLiteral("好了"));
}

TEST_F(OverlayPanelControllerTest, CapsuleOnTheSecondScreenAndBackWhereItWasDragged)
{
    card->present(doubao, ExplanationDepth::balanced, QRect(2000, 300, 100, 18));
    card->beginResponse(false);
    card->appendText(QStringLiteral("答"));
    card->finish();
    card->collapseToPill();
    PillPanel* pill = card->pillPanel();
    EXPECT_EQ(pill->bodyGeometry().right() + 1, 2880 - 12);

    // A press moved by less than 3 pixels is a click: it restores the card.
    const QPointF inside(pill->width() / 2.0, pill->height() / 2.0);
    const QPointF global = pill->mapToGlobal(inside);
    auto send = [&](QEvent::Type type, QPointF offset, Qt::MouseButtons buttons) {
        QMouseEvent event(type, inside + offset, global + offset, Qt::LeftButton, buttons, Qt::NoModifier);
        QApplication::sendEvent(pill, &event);
    };
    send(QEvent::MouseButtonPress, {}, Qt::LeftButton);
    send(QEvent::MouseMove, {2, 2}, Qt::LeftButton);
    send(QEvent::MouseButtonRelease, {2, 2}, Qt::NoButton);
    EXPECT_TRUE(cardVisible());
    EXPECT_FALSE(card->savedPillOrigin());

    card->collapseToPill();
    const QPoint before = pill->bodyGeometry().topLeft();
    send(QEvent::MouseButtonPress, {}, Qt::LeftButton);
    send(QEvent::MouseMove, {-300, 3}, Qt::LeftButton);
    send(QEvent::MouseButtonRelease, {-300, 3}, Qt::NoButton);
    EXPECT_FALSE(cardVisible()) << "a drag is not a click";
    ASSERT_TRUE(card->savedPillOrigin());
    EXPECT_EQ(*card->savedPillOrigin(), before + QPoint(-300, 3));

    card->restoreFromPill();
    card->collapseToPill();
    EXPECT_EQ(pill->bodyGeometry().topLeft(), before + QPoint(-300, 3));
}

TEST_F(OverlayPanelControllerTest, DraggedCapsuleIsClampedIntoTheCurrentScreen)
{
    presentAnswered();
    card->collapseToPill();
    Q_EMIT card->pillPanel()->dragFinished(QPoint(5000, -400)); // a monitor that has gone away
    card->restoreFromPill();
    card->collapseToPill();
    const QRect pill = card->pillPanel()->bodyGeometry();
    EXPECT_EQ(pill.topLeft(), QPoint(1280 - pill.width() - 8, 30 + 8));
}

TEST_F(OverlayPanelControllerTest, EscapeAndTheCapsuleCloseControlCloseTheCard)
{
    presentAnswered();
    QKeyEvent escape(QEvent::KeyPress, Qt::Key_Escape, Qt::NoModifier);
    QApplication::sendEvent(card->panel(), &escape);
    EXPECT_FALSE(cardVisible());
    EXPECT_EQ(closes, 1);
    EXPECT_FALSE(clicks->isActive());

    presentAnswered();
    card->collapseToPill();
    card->pillPanel()->closeControl()->click();
    EXPECT_FALSE(cardVisible());
    EXPECT_FALSE(pillVisible());
    EXPECT_EQ(closes, 2);
}

TEST_F(OverlayPanelControllerTest, ContinueSessionKeepsTextAndAPinnedCardsPlace)
{
    presentAnswered(QStringLiteral("原来的解释"));
    card->togglePin();
    const QPoint pinnedAt = card->panel()->bodyGeometry().topLeft();
    card->continueSession(doubao, ExplanationDepth::fast, QRect(900, 700, 50, 18));
    EXPECT_EQ(card->panel()->bodyGeometry().topLeft(), pinnedAt);
    EXPECT_EQ(shownText(), QStringLiteral("原来的解释"));
    EXPECT_FALSE(card->followUpField()->isEnabled());
    EXPECT_TRUE(shown(card->stopButton()));
    EXPECT_EQ(card->currentDepth(), ExplanationDepth::fast);

    card->togglePin();
    card->continueSession(doubao, ExplanationDepth::fast, QRect(900, 700, 50, 18));
    EXPECT_NE(card->panel()->bodyGeometry().topLeft(), pinnedAt);
}

TEST_F(OverlayPanelControllerTest, CopyPutsThePlainAnswerOnTheClipboard)
{
    presentAnswered(QStringLiteral("- **要点**一\n- 要点二"));
    card->copyAnswer();
    EXPECT_EQ(QGuiApplication::clipboard()->text(), QStringLiteral("•\t要点一\n•\t要点二"));
    EXPECT_EQ(card->statusText(), QStringLiteral("已复制"));
    EXPECT_EQ(card->statusTone(), CardStatusTone::success);
    EXPECT_EQ(card->copyButton()->toolTip(), QStringLiteral("复制解释"));
}

TEST(PillPanelTest, CapsuleTextsAndSize)
{
    PillPanel pill;
    EXPECT_EQ(pill.toolTip(), QStringLiteral("点按恢复解释卡片，拖动可以移动位置。"));
    EXPECT_EQ(pill.accessibleName(), QStringLiteral("澜镜。点按恢复解释卡片，拖动可以移动位置。"));
    EXPECT_EQ(pill.closeControl()->toolTip(), QStringLiteral("关闭解释卡片"));
    EXPECT_EQ(pill.bodySize().height(), 50);
    const int title = int(std::ceil(QFontMetricsF(OverlayStyle::uiFont(15, QFont::DemiBold)).horizontalAdvance(QStringLiteral("澜镜"))));
    EXPECT_EQ(pill.bodySize().width(), title + 60 + pill.closeControl()->width());
    // The close control lies inside the capsule.
    EXPECT_TRUE(QRect(QPoint(), pill.bodySize())
                    .contains(pill.closeControl()->geometry().translated(-pill.bodyGeometry().topLeft() + pill.geometry().topLeft())));
}

TEST(ProviderIconViewTest, EveryServiceHasItsOwnBadge)
{
    QSet<QRgb> colours;
    for (const ProviderDefinition& provider : ProviderDefinition::builtIn()) {
        const auto badge = ProviderIconView::badge(provider.id, provider.compactTitle());
        EXPECT_FALSE(badge.glyph.isEmpty()) << provider.id.toStdString();
        colours.insert(badge.top.rgb());
    }
    EXPECT_EQ(colours.size(), ProviderDefinition::builtIn().size());
    EXPECT_EQ(ProviderIconView::badge(QStringLiteral("custom"), QStringLiteral("自定义服务")).glyph, QStringLiteral("自"));
    EXPECT_EQ(ProviderIconView::badge(QStringLiteral("x"), QString()).glyph, QStringLiteral("?"));
}

} // namespace
} // namespace velnora
