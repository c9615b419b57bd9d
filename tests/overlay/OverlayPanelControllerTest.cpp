#include "overlay/OverlayPanelController.h"

#include "overlay/CardProbe.h"
#include "overlay/ExplanationPanel.h"
#include "overlay/FollowUpField.h"
#include "overlay/MarkdownRenderer.h"
#include "overlay/PillPanel.h"
#include "overlay/ToolbarButton.h"

#include <QApplication>
#include <QDesktopServices>
#include <QKeyEvent>
#include <QLabel>
#include <QPushButton>
#include <QScrollBar>
#include <QTest>
#include <QTextBlock>
#include <QTextBrowser>
#include <gtest/gtest.h>

namespace velnora {
namespace {

using test::FakeClickSource;

// Stands in for the desktop's handlers of the schemes a link may carry: it records what the card opened.
class LinkRecorder : public QObject
{
    Q_OBJECT
public:
    QList<QUrl> opened;
    Q_INVOKABLE void open(const QUrl& url) { opened.append(url); }
};

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

// The status text as drawn: its strokes carry the status's hue.
TEST_F(OverlayPanelControllerTest, StatusTextIsDrawnInTheColourOfItsMoment)
{
    const auto drawnHues = [&] {
        const QImage image = card->panel()->findChild<QLabel*>("statusLabel")->grab().toImage();
        QSet<int> hues;
        for (int y = 0; y < image.height(); ++y) {
            for (int x = 0; x < image.width(); ++x) {
                const QColor pixel = image.pixelColor(x, y);
                if (pixel.hsvSaturation() > 128 && pixel.value() > 96) {
                    hues.insert(pixel.hsvHue() / 30);
                }
            }
        }
        return hues;
    };
    present();
    card->appendText("答");
    card->setStatus("生成中", CardStatusTone::working);
    EXPECT_TRUE(drawnHues().contains(card->statusColor().hsvHue() / 30)) << "blue while working";
    card->finish();
    EXPECT_TRUE(drawnHues().contains(card->statusColor().hsvHue() / 30)) << "green when done";
    card->showError({"请求失败了。", std::nullopt, std::nullopt});
    EXPECT_TRUE(drawnHues().contains(card->statusColor().hsvHue() / 30)) << "red on failure";
}

TEST_F(OverlayPanelControllerTest, WhatFollowsACodeListingCutOffMidwayIsNotCode)
{
    const ProviderDiagnosis dropped{"网络不可用或超时，稍后重试。", std::nullopt, std::nullopt};
    // What is appended after an answer cut inside a listing, and the text that must not be code.
    const std::tuple<QString, std::function<void()>, QString> cases[]{
        {"an error", [&] { card->showError(dropped); }, "⚠️ 网络不可用或超时"},
        {"a follow-up's answer",
         [&] {
             card->finish();
             card->beginResponse(true);
             card->appendText("追问的回答");
             card->finish();
         },
         "追问的回答"},
    };
    for (const auto& [name, append, after] : cases) {
        for (const QString& cut : {QString("```python\nprint(1)"), QString("前文\n\n  ```\nx = 1\n")}) {
            present();
            card->appendText(cut);
            append();
            const QTextDocument* document = card->outputTextView()->document();
            const QTextBlock block = document->find(after).block();
            ASSERT_TRUE(block.isValid()) << name.toStdString();
            EXPECT_FALSE(block.blockFormat().hasProperty(MarkdownRenderer::codePanelProperty))
                << name.toStdString() << " after " << cut.toStdString();
            EXPECT_TRUE(document->find(cut.contains("print") ? "print(1)" : "x = 1")
                            .block()
                            .blockFormat()
                            .hasProperty(MarkdownRenderer::codePanelProperty))
                << "the listing itself stays code";
        }
    }
}

TEST_F(OverlayPanelControllerTest, OnlyWebAndMailLinksOpen)
{
    LinkRecorder recorder;
    const QStringList schemes{"http", "https", "mailto", "file", "javascript", "ftp", "data"};
    for (const QString& scheme : schemes) {
        QDesktopServices::setUrlHandler(scheme, &recorder, "open");
    }
    present();
    card->appendText("[网页甲](https://example.com/a) [邮件乙](mailto:someone@example.com) "
                     "[文件丙](file:///etc/passwd) [脚本丁](javascript:alert(1)) [相对戊](notes/x.html) "
                     "[网页己](http://example.com/b) [数据庚](data:text/html,x) [无址辛](https:///nohost)");
    card->finish();
    card->panel()->resize(900, 400);
    QTextBrowser* view = card->outputTextView();
    for (const QString& text :
         {"网页甲", "邮件乙", "文件丙", "脚本丁", "相对戊", "网页己", "数据庚", "无址辛"}) {
        QTextCursor found = view->document()->find(text);
        ASSERT_FALSE(found.isNull()) << text.toStdString();
        found.setPosition(found.selectionStart() + 1);
        // A press and release on the link, as the user clicks it.
        QTest::mouseClick(view->viewport(), Qt::LeftButton, {},
                          view->cursorRect(found).center() + QPoint(3, 0));
    }
    for (const QString& scheme : schemes) {
        QDesktopServices::unsetUrlHandler(scheme);
    }
    EXPECT_EQ(recorder.opened, (QList<QUrl>{QUrl("https://example.com/a"), QUrl("mailto:someone@example.com"),
                                            QUrl("http://example.com/b")}));
    EXPECT_TRUE(view->source().isEmpty()) << "the card never navigates away from the answer";
}

TEST_F(OverlayPanelControllerTest, RendersFollowTheEndOnlyWhileTheReaderIsThere)
{
    present();
    QScrollBar* bar = card->outputTextView()->verticalScrollBar();
    const auto stream = [&](int lines) {
        for (int i = 0; i < lines; ++i) {
            card->appendText(QString("第 %1 段回答。\n\n").arg(i));
        }
        card->renderImmediately();
    };
    stream(80);
    ASSERT_GT(bar->maximum(), 0);
    EXPECT_EQ(bar->value(), bar->maximum()) << "a reader at the end follows it";

    bar->setValue(bar->maximum() / 2); // scrolled back to read
    const int middle = bar->value();
    stream(40);
    EXPECT_EQ(bar->value(), middle);

    bar->setValue(bar->maximum());
    stream(40);
    EXPECT_EQ(bar->value(), bar->maximum());
}

} // namespace
} // namespace velnora

#include "OverlayPanelControllerTest.moc"
