#include "overlay/OverlayRunModes.h"

#include "base/ModeResult.h"
#include "overlay/ExplanationPanel.h"
#include "overlay/MarkdownRenderer.h"
#include "overlay/OverlayGeometry.h"
#include "overlay/OverlayPanelController.h"
#include "overlay/PillPanel.h"

#include <QApplication>
#include <QDir>
#include <QFileInfo>
#include <QImage>
#include <QPainter>
#include <QTextBlock>
#include <QTextBrowser>
#include <QTextDocument>

#include <memory>

namespace velnora::OverlayRunModes {

namespace {

constexpr qreal imageScale = 2.0;

class NoClicks : public OutsideClickSource
{
public:
    bool start(Handler) override { return false; }
    void stop() override {}
    bool isActive() const override { return false; }
};

// Previews and checks draw nothing on the user's screen: without an explicit platform they run offscreen,
// which also makes them work where no display exists.
std::unique_ptr<QApplication> makeApplication(const ProcessArguments& arguments)
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    return std::make_unique<QApplication>(arguments.argc(), arguments.argv());
}

QString blockTexts(const QTextDocument& document)
{
    return document.toPlainText();
}

QString writeImage(QWidget& window, const QString& path)
{
    QImage image((QSizeF(window.size()) * imageScale).toSize(), QImage::Format_ARGB32_Premultiplied);
    image.setDevicePixelRatio(imageScale);
    image.fill(Qt::transparent);
    {
        QPainter painter(&image);
        window.render(&painter, QPoint(), QRegion(), QWidget::DrawChildren);
    }
    const QFileInfo info(path);
    if (!info.absoluteDir().exists() && !QDir().mkpath(info.absolutePath())) {
        return QStringLiteral("无法创建文件夹 %1").arg(info.absolutePath());
    }
    if (!image.save(path, "PNG")) {
        return QStringLiteral("无法写入图像文件 %1").arg(path);
    }
    return {};
}

void usePalette(bool dark)
{
    QApplication::setPalette(dark ? OverlayStyle::darkPalette() : OverlayStyle::lightPalette());
}

// A large fake screen, so the preview is placed without clamping against whatever screen exists.
QList<ScreenArea> previewScreens()
{
    return {{QRect(0, 0, 2000, 2000), QRect(0, 0, 2000, 2000)}};
}

} // namespace

QString sampleAnswer()
{
    return QStringLiteral(
        "## 什么是“边际效用递减”\n"
        "\n"
        "**边际效用递减**是说：其他条件不变时，同一样东西每多得到一份，带来的*额外*满足感会越来越少。\n"
        "\n"
        "### 生活里的例子\n"
        "- 饿的时候第一个包子最香，第三个就**没那么香**了\n"
        "- 第一杯咖啡提神，第四杯可能只剩~~提神~~心慌\n"
        "1. 先想清楚自己`真正需要`多少\n"
        "2) 再决定要不要继续买\n"
        "\n"
        "> 它描述的是普遍趋势，不是每个人每次都必然如此。\n"
        "\n"
        "```python\n"
        "满足感 = [10, 7, 4, 2]\n"
        "print(sum(满足感))  # 总满足感仍在增加，只是越加越少\n"
        "```\n"
        "\n"
        "---\n"
        "\n"
        "想了解更多，可以看看[百科里的解释](https://baike.baidu.com/item/边际效用递减)。");
}

QString markdownFailure()
{
    struct Case
    {
        const char* markdown;
        const char16_t* expected;
    };
    const Case cases[] = {
        {"# 标题\n第一行\n第二行\n\n另一段", u"标题\n第一行 第二行\n另一段"},
        {"```\n代码\n  缩进", u"代码\n  缩进"},
        {"3) 第三项\n4.没有空格", u"3.\t第三项\n4.没有空格"},
        {"####### 七个井号\n#没有空格", u"####### 七个井号 #没有空格"},
        {"- - -\n--", u"────────────────────────\n--"},
        {"**未闭合 `反引号", u"**未闭合 `反引号"},
        {"甲\r\n乙\r丙\n\n", u"甲 乙 丙"},
        {"> 引用 **重点**", u"▌ 引用 重点"},
        {"  \n\t\n", u""},
    };
    QTextDocument document;
    for (const Case& c : cases) {
        MarkdownRenderer::render(QString::fromUtf8(c.markdown), document);
        const QString expected = QString::fromUtf16(c.expected);
        if (blockTexts(document) != expected) {
            return QStringLiteral("“%1”渲染为“%2”，应为“%3”")
                .arg(QString::fromUtf8(c.markdown), blockTexts(document), expected);
        }
    }
    MarkdownRenderer::render(QStringLiteral("## 小标题\n正文 **粗体**"), document);
    if (document.firstBlock().charFormat().fontPointSize() <= document.lastBlock().charFormat().fontPointSize()) {
        return QStringLiteral("标题没有比正文大");
    }
    QTextBlock body = document.lastBlock();
    bool boldFound = false;
    for (auto it = body.begin(); !it.atEnd(); ++it) {
        if (it.fragment().text() == u"粗体" && it.fragment().charFormat().fontWeight() >= QFont::Bold) {
            boldFound = true;
        }
    }
    if (!boldFound) {
        return QStringLiteral("粗体没有渲染为粗体");
    }
    return {};
}

QString overlayFailure()
{
    using namespace OverlayGeometry;
    const QSize card(460, 400);
    const QList<ScreenArea> screens{{QRect(0, 0, 1280, 1024), QRect(0, 28, 1280, 996)},
                                    {QRect(1280, 0, 1920, 1080), QRect(1280, 0, 1920, 1080)}};
    const QPoint below = panelOrigin(card, QRect(400, 200, 200, 20), {}, screens);
    if (below != QPoint(270, 232)) {
        return QStringLiteral("选区下方有空间时卡片应放在下方，实际位置 (%1, %2)").arg(below.x()).arg(below.y());
    }
    const QPoint above = panelOrigin(card, QRect(400, 900, 200, 20), {}, screens);
    if (above.y() != 900 - 400 - 12) {
        return QStringLiteral("靠近屏幕底部时卡片应放在选区上方，实际 y = %1").arg(above.y());
    }
    const QPoint right = panelOrigin(card, QRect(1250, 300, 20, 20), {}, screens);
    if (right.x() != 1280 - 460 - 8) {
        return QStringLiteral("靠近右边缘时卡片应留出 8 像素，实际 x = %1").arg(right.x());
    }
    const QPoint second = panelOrigin(card, QRect(3000, 500, 40, 20), {}, screens);
    if (second.x() < 1280) {
        return QStringLiteral("第二块屏幕上的选区，卡片却落在第一块屏幕上");
    }
    const QPoint mouse = panelOrigin(card, std::nullopt, QPoint(640, 100), screens);
    if (mouse != QPoint(640 - 230, 113)) {
        return QStringLiteral("没有选区位置时卡片应跟随鼠标");
    }
    if (!isMenuBarClick(QPoint(500, 10), screens) || isMenuBarClick(QPoint(500, 40), screens) ||
        isMenuBarClick(QPoint(1500, 5), screens)) {
        return QStringLiteral("面板区域的点击判断有误");
    }
    const QPoint pill = pillOrigin(QPoint(5000, -50), QSize(120, 50), screens[0].visibleFrame);
    if (pill != QPoint(1280 - 120 - 8, 28 + 8)) {
        return QStringLiteral("胶囊位置没有限制在屏幕之内");
    }
    return {};
}

QString renderPill(const QString& path, bool dark)
{
    usePalette(dark);
    PillPanel pill;
    pill.moveBodyTo(QPoint(100, 100));
    pill.show();
    return writeImage(pill, path);
}

QString renderOverlay(const QString& path, bool dark)
{
    usePalette(dark);
    OverlayPanelController controller(std::make_unique<NoClicks>());
    controller.setScreenSource(previewScreens);
    controller.present(ProviderDefinition::definition(QStringLiteral("doubao")), ExplanationDepth::balanced,
                       QRect(600, 80, 200, 20));
    controller.beginResponse(false);
    controller.appendText(sampleAnswer());
    controller.finish();

    // Tall enough to show the whole answer, so the preview shows every construct.
    ExplanationPanel& panel = *controller.panel();
    QTextBrowser& text = *controller.outputTextView();
    QApplication::processEvents();
    const int documentHeight = int(text.document()->size().height());
    const int missing = documentHeight + 16 - text.viewport()->height();
    if (missing > 0) {
        panel.resize(panel.width(), std::min(panel.height() + missing + 2, 1400));
        QApplication::processEvents();
    }
    // Offscreen windows are active at once; the preview shows the card as it appears, without focus.
    if (QWidget* focused = QApplication::focusWidget()) {
        focused->clearFocus();
    }
    return writeImage(panel, path);
}

int runMarkdownSelfTest(const ProcessArguments& arguments)
{
    const auto application = makeApplication(arguments);
    return ModeResult::report(QStringLiteral("markdown-self-test"), markdownFailure());
}

int runOverlaySelfTest(const ProcessArguments&)
{
    return ModeResult::report(QStringLiteral("overlay-self-test"), overlayFailure());
}

int runRenderPill(const ProcessArguments& arguments)
{
    const QString path = arguments.valueAfter(QStringLiteral("--render-pill")).value_or(QString());
    const auto application = makeApplication(arguments);
    return ModeResult::report(QStringLiteral("render-pill"), renderPill(path, arguments.has(QStringLiteral("--dark"))));
}

int runRenderOverlay(const ProcessArguments& arguments)
{
    const QString path = arguments.valueAfter(QStringLiteral("--render-overlay")).value_or(QString());
    const auto application = makeApplication(arguments);
    return ModeResult::report(QStringLiteral("render-overlay"),
                              renderOverlay(path, arguments.has(QStringLiteral("--dark"))));
}

} // namespace velnora::OverlayRunModes
