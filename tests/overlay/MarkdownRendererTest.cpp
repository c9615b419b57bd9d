#include "overlay/MarkdownRenderer.h"

#include <QTextBlock>
#include <QTextDocument>

#include <gtest/gtest.h>

namespace velnora {
namespace {

struct StyledRun
{
    QString text;
    QTextCharFormat format;
};

class MarkdownRendererTest : public testing::Test
{
protected:
    void render(const QString& markdown) { MarkdownRenderer::render(markdown, document, colours); }

    QList<QTextBlock> blocks() const
    {
        QList<QTextBlock> list;
        for (QTextBlock block = document.begin(); block.isValid(); block = block.next()) {
            list.append(block);
        }
        return list;
    }

    static QList<StyledRun> runs(const QTextBlock& block)
    {
        QList<StyledRun> list;
        for (auto it = block.begin(); !it.atEnd(); ++it) {
            list.append({it.fragment().text(), it.fragment().charFormat()});
        }
        return list;
    }

    static qreal pixels(const QTextCharFormat& format) { return format.fontPointSize() * 96.0 / 72.0; }

    QTextDocument document;
    SemanticColors colours = SemanticColors::from(OverlayStyle::lightPalette());
};

TEST_F(MarkdownRendererTest, ParagraphsJoinLinesAndBlankLinesSeparateThem)
{
    render(QStringLiteral("第一行\n  第二行\t\n\n\n另一段"));
    ASSERT_EQ(blocks().size(), 2);
    EXPECT_EQ(blocks()[0].text(), QStringLiteral("第一行 第二行"));
    EXPECT_EQ(blocks()[1].text(), QStringLiteral("另一段"));
    EXPECT_EQ(runs(blocks()[0]).front().format.foreground().color(), colours.label);
}

TEST_F(MarkdownRendererTest, LineEndingsAlikeNoTrailingNewlineAndBlankInputIsEmpty)
{
    const QList<std::pair<QString, QString>> cases{
        {QStringLiteral("甲\r\n乙\r丙\n\n丁\r\r戊"), QStringLiteral("甲 乙 丙\n丁\n戊")},
        {QStringLiteral("段落\n\n\n"), QStringLiteral("段落")},
        {QStringLiteral(" \t\n\r\n  "), QString()},
        {QString(), QString()},
    };
    for (const auto& [markdown, plain] : cases) {
        render(markdown);
        EXPECT_EQ(document.toPlainText(), plain) << markdown.toStdString();
    }
    EXPECT_EQ(document.blockCount(), 1);
}

TEST_F(MarkdownRendererTest, HeadingsAreLargerThanBodyTextAndShrinkByLevel)
{
    render(QStringLiteral("# 一\n## 二\n### 三\n#### 四\n###### 六\n正文\n\n####### 七个\n\n#紧挨着\n\n#"));
    const QList<QTextBlock> list = blocks();
    ASSERT_EQ(list.size(), 9);
    EXPECT_EQ(list[0].text(), QStringLiteral("一"));
    EXPECT_EQ(list[4].blockFormat().headingLevel(), 6);
    const qreal body = pixels(runs(list[5]).front().format);
    for (int i = 0; i < 5; ++i) {
        const qreal size = pixels(runs(list[i]).front().format);
        EXPECT_GT(size, body) << i;
        if (i > 0) {
            EXPECT_LE(size, pixels(runs(list[i - 1]).front().format)) << i;
        }
        EXPECT_GE(runs(list[i]).front().format.fontWeight(), QFont::DemiBold) << i;
    }
    // Seven hashes, no space, or nothing after the hash: plain paragraphs.
    EXPECT_EQ(list[6].text(), QStringLiteral("####### 七个"));
    EXPECT_EQ(list[7].text(), QStringLiteral("#紧挨着"));
    for (int i = 6; i < 9; ++i) {
        EXPECT_EQ(list[i].blockFormat().headingLevel(), 0);
        EXPECT_EQ(pixels(runs(list[i]).front().format), body);
    }
}

TEST_F(MarkdownRendererTest, ListItemsGetPrefixTabAndHangingIndent)
{
    render(QStringLiteral("- 甲\n* 乙\n+ 丙\n3) 第三\n12. 十二\n007. 七"));
    const QList<QTextBlock> list = blocks();
    ASSERT_EQ(list.size(), 6);
    const QStringList texts{QStringLiteral("•\t甲"), QStringLiteral("•\t乙"), QStringLiteral("•\t丙"),
                            QStringLiteral("3.\t第三"), QStringLiteral("12.\t十二"), QStringLiteral("7.\t七")};
    for (int i = 0; i < list.size(); ++i) {
        EXPECT_EQ(list[i].text(), texts[i]);
        const QTextBlockFormat format = list[i].blockFormat();
        // Wrapped lines hang at the tab that follows the marker.
        EXPECT_LT(format.leftMargin() + format.textIndent(), format.leftMargin());
        ASSERT_EQ(format.tabPositions().size(), 1);
        EXPECT_EQ(format.tabPositions().front().position, format.leftMargin());
    }
}

TEST_F(MarkdownRendererTest, AlmostListItemsArePlainParagraphs)
{
    for (const QString& line : {QStringLiteral("4.没有空格"), QStringLiteral("5. "), QStringLiteral("-紧挨"),
                                QStringLiteral("99999999999999999999. 太大"), QStringLiteral("１. 全角数字")}) {
        render(line);
        ASSERT_EQ(document.blockCount(), 1) << line.toStdString();
        EXPECT_EQ(document.toPlainText(), line.trimmed()) << line.toStdString();
        EXPECT_EQ(document.firstBlock().blockFormat().leftMargin(), 0) << line.toStdString();
    }
}

TEST_F(MarkdownRendererTest, RulesWithOrWithoutSpacesButNotTwoHyphens)
{
    for (const QString& rule : {QStringLiteral("---"), QStringLiteral("- - -"), QStringLiteral("* * *"),
                                QStringLiteral("___"), QStringLiteral("  -----  ")}) {
        render(QStringLiteral("上\n") + rule + QStringLiteral("\n下"));
        const QList<QTextBlock> list = blocks();
        ASSERT_EQ(list.size(), 3) << rule.toStdString();
        EXPECT_EQ(list[1].text(), MarkdownRenderer::horizontalRuleText()) << rule.toStdString();
        EXPECT_EQ(runs(list[1]).front().format.foreground().color(), colours.separator);
    }
    render(QStringLiteral("上\n--\n-*-"));
    EXPECT_EQ(document.toPlainText(), QStringLiteral("上 -- -*-"));
}

TEST_F(MarkdownRendererTest, QuoteHasAccentMarkerAndItalicSecondaryText)
{
    render(QStringLiteral(">   引用的话"));
    const QList<StyledRun> list = runs(document.firstBlock());
    ASSERT_EQ(list.size(), 2);
    EXPECT_EQ(list[0].text, QStringView(MarkdownRenderer::quoteMarker).toString());
    EXPECT_EQ(list[0].format.foreground().color(), colours.accent);
    EXPECT_EQ(list[1].text, QStringLiteral("引用的话"));
    EXPECT_TRUE(list[1].format.fontItalic());
    EXPECT_EQ(list[1].format.foreground().color(), colours.secondaryLabel);
    const QTextBlockFormat format = document.firstBlock().blockFormat();
    EXPECT_LT(format.leftMargin() + format.textIndent(), format.leftMargin());
}

TEST_F(MarkdownRendererTest, CodeBlockKeepsLinesVerbatimWithLanguageLabel)
{
    render(QStringLiteral("前\n```python \n  x = **不是粗体**\n\ty\n```\n后"));
    const QList<QTextBlock> list = blocks();
    ASSERT_EQ(list.size(), 4);
    EXPECT_EQ(list[1].text(), QStringLiteral("python"));
    EXPECT_EQ(runs(list[1]).front().format.foreground().color(), colours.secondaryLabel);

    EXPECT_EQ(list[2].text(), QStringLiteral("  x = **不是粗体**") + QChar(QChar::LineSeparator) + QStringLiteral("\ty"));
    const QList<StyledRun> code = runs(list[2]);
    ASSERT_EQ(code.size(), 1);
    EXPECT_TRUE(code[0].format.fontFixedPitch());
    EXPECT_EQ(list[2].blockFormat().property(MarkdownRenderer::codePanelProperty).value<QColor>(), colours.controlBackground);
    EXPECT_EQ(list[3].text(), QStringLiteral("后"));
    EXPECT_EQ(document.toPlainText(), QStringLiteral("前\npython\n  x = **不是粗体**\n\ty\n后"));
}

TEST_F(MarkdownRendererTest, UnclosedFenceTakesTheRestAndClosesOnceMoreTextArrives)
{
    const QString partial = QStringLiteral("说明\n```\n第一行\n# 不是标题\n- 不是列表");
    render(partial);
    QList<QTextBlock> list = blocks();
    ASSERT_EQ(list.size(), 2);
    EXPECT_TRUE(list[1].blockFormat().hasProperty(MarkdownRenderer::codePanelProperty));
    EXPECT_EQ(list[1].text().split(QChar(QChar::LineSeparator)).size(), 3);

    render(partial + QStringLiteral("\n```\n之后的段落"));
    list = blocks();
    ASSERT_EQ(list.size(), 3);
    EXPECT_FALSE(list[2].blockFormat().hasProperty(MarkdownRenderer::codePanelProperty));
    EXPECT_EQ(list[2].text(), QStringLiteral("之后的段落"));

    render(QStringLiteral("```"));
    EXPECT_EQ(document.blockCount(), 1);
    EXPECT_TRUE(document.firstBlock().blockFormat().hasProperty(MarkdownRenderer::codePanelProperty));
}

TEST_F(MarkdownRendererTest, InlineRunsCarryTheirFormats)
{
    render(QStringLiteral("甲**粗**乙*斜*丙~~删~~丁__也粗__戊`代码`己[链接](https://example.com/a?b=1)庚"));
    const QList<StyledRun> list = runs(document.firstBlock());
    QStringList texts;
    for (const StyledRun& run : list) {
        texts << run.text;
    }
    EXPECT_EQ(texts, (QStringList{"甲", "粗", "乙", "斜", "丙", "删", "丁", "也粗", "戊", "代码", "己", "链接", "庚"}));
    EXPECT_EQ(list[0].format.fontWeight(), QFont::Normal);
    EXPECT_EQ(list[1].format.fontWeight(), QFont::Bold);
    EXPECT_TRUE(list[3].format.fontItalic());
    EXPECT_TRUE(list[5].format.fontStrikeOut());
    EXPECT_EQ(list[7].format.fontWeight(), QFont::Bold);
    EXPECT_TRUE(list[9].format.fontFixedPitch());
    EXPECT_EQ(list[9].format.background().color(), colours.inlineCodeBackground);
    EXPECT_TRUE(list[11].format.isAnchor());
    EXPECT_EQ(list[11].format.anchorHref(), QStringLiteral("https://example.com/a?b=1"));
    EXPECT_EQ(list[11].format.foreground().color(), colours.link);
    EXPECT_EQ(list[11].format.underlineStyle(), QTextCharFormat::SingleUnderline);
    EXPECT_FALSE(list[12].format.isAnchor());
}

TEST_F(MarkdownRendererTest, NestedMarkupInheritsTheEnclosingRun)
{
    render(QStringLiteral("### 标题里**粗`码`**"));
    const QList<StyledRun> list = runs(document.firstBlock());
    ASSERT_EQ(list.size(), 3);
    EXPECT_EQ(list[2].text, QStringLiteral("码"));
    EXPECT_EQ(list[2].format.fontWeight(), QFont::Bold);
    EXPECT_TRUE(list[2].format.fontFixedPitch());
    render(QStringLiteral("[**粗的链接**](https://example.com)"));
    const QList<StyledRun> link = runs(document.firstBlock());
    ASSERT_EQ(link.size(), 1);
    EXPECT_EQ(link[0].format.fontWeight(), QFont::Bold);
    EXPECT_TRUE(link[0].format.isAnchor());
}

TEST_F(MarkdownRendererTest, UnclosedOrInvalidMarkupStaysLiteral)
{
    const QStringList cases{QStringLiteral("**没闭合的粗体"), QStringLiteral("一个`反引号"), QStringLiteral("~~删"),
                            QStringLiteral("单个*星号"), QStringLiteral("[文字](不是网址)"),
                            QStringLiteral("[文字](缺右括号"), QStringLiteral("a**b*")};
    for (const QString& text : cases) {
        render(text);
        EXPECT_EQ(document.toPlainText(), text) << text.toStdString();
        for (const StyledRun& run : runs(document.firstBlock())) {
            EXPECT_EQ(run.format.fontWeight(), QFont::Normal) << text.toStdString();
            EXPECT_FALSE(run.format.isAnchor()) << text.toStdString();
        }
    }
}

TEST_F(MarkdownRendererTest, AdversarialInputRendersWithoutFailing)
{
    QString nested;
    for (int i = 0; i < 5000; ++i) {
        nested += QStringLiteral("**[~~*");
    }
    render(nested + QStringLiteral("中") + QString(nested).replace(u'[', u']'));
    EXPECT_FALSE(document.toPlainText().isEmpty());

    render(QString(20000, u'`') + QString(20000, u'[') + QStringLiteral("\r\r\r```"));
    EXPECT_GT(document.blockCount(), 0);

    QString binary;
    for (char16_t c = 0; c < 0x3000; c += 7) {
        binary += QChar(c);
    }
    render(binary);
    EXPECT_GT(document.characterCount(), 1);
}

} // namespace
} // namespace velnora
