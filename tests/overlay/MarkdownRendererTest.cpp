#include "overlay/MarkdownRenderer.h"

#include <QTextBlock>
#include <QTextDocument>
#include <gtest/gtest.h>

namespace velnora {
namespace {

class MarkdownRendererTest : public testing::Test
{
protected:
    // The text of each block, so that a wrongly split or joined block shows.
    QStringList render(const QString& markdown)
    {
        MarkdownRenderer::render(markdown, document, colours);
        QStringList texts;
        for (QTextBlock block = document.begin(); block.isValid(); block = block.next()) {
            texts << block.text();
        }
        return texts;
    }

    QTextDocument document;
    SemanticColors colours = SemanticColors::from(OverlayStyle::lightPalette());
};

TEST_F(MarkdownRendererTest, BlocksAreSplitAndJoinedWhereTheyShouldBe)
{
    const QString rule = MarkdownRenderer::horizontalRuleText();
    const QString quote = QStringView(MarkdownRenderer::quoteMarker).toString();
    const QString lines(QChar::LineSeparator);
    const QString fence = QStringLiteral("说明\n```\n第一行\n# 不是标题\n- 不是列表");
    const QList<std::pair<QString, QStringList>> cases{
        {"第一行\n  第二行\t\n\n\n另一段\n\n\n", {"第一行 第二行", "另一段"}},
        {"甲\r\n乙\r丙\n\n丁\r\r戊", {"甲 乙 丙", "丁", "戊"}},
        {" \t\n\r\n  ", {""}},
        {"# 一\n###### 六\n####### 七个\n#紧挨着\n#", {"一", "六", "####### 七个 #紧挨着 #"}},
        {"- 甲\n* 乙\n+ 丙\n3) 第三\n007. 七", {"•\t甲", "•\t乙", "•\t丙", "3.\t第三", "7.\t七"}},
        {"4.没有空格\n5. \n-紧挨\n99999999999999999999. 太大\n１. 全角",
         {"4.没有空格 5. -紧挨 99999999999999999999. 太大 １. 全角"}},
        {"上\n---\n- - -\n___\n  * * *  \n下\n--\n-*-", {"上", rule, rule, rule, rule, "下 -- -*-"}},
        {">   引用的话", {quote + "引用的话"}},
        // Unclosed or invalid markup is shown as written.
        {"**没闭合的粗体\n\n一个`反引号\n\n~~删\n\n单个*星号\n\n[文字](不是网址)\n\n[文字](缺右括号\n\na**b*",
         {"**没闭合的粗体", "一个`反引号", "~~删", "单个*星号", "[文字](不是网址)", "[文字](缺右括号",
          "a**b*"}},
        {"前\n```python \n  x = **不是粗体**\n\ty\n```\n后",
         {"前", "python", "  x = **不是粗体**" + lines + "\ty", "后"}},
        // While the answer streams, an open fence takes the rest; the closing fence ends it.
        {fence, {"说明", "第一行" + lines + "# 不是标题" + lines + "- 不是列表"}},
        {fence + "\n```\n之后", {"说明", "第一行" + lines + "# 不是标题" + lines + "- 不是列表", "之后"}},
    };
    for (const auto& [markdown, expected] : cases) {
        EXPECT_EQ(render(markdown).join(u'|').toStdString(), expected.join(u'|').toStdString());
    }
}

TEST_F(MarkdownRendererTest, InlineRunsCarryTheirFormatsAndNest)
{
    render(
        "甲**粗**乙*斜*丙~~删~~丁__也粗__戊`代码`己[**链接**](https://example.com/a?b=1)庚### 标**粗`码`**");
    QStringList texts;
    QList<QTextCharFormat> formats;
    for (auto it = document.firstBlock().begin(); !it.atEnd(); ++it) {
        texts << it.fragment().text();
        formats << it.fragment().charFormat();
    }
    EXPECT_EQ(texts, (QStringList{"甲", "粗", "乙", "斜", "丙", "删", "丁", "也粗", "戊", "代码", "己",
                                  "链接", "庚### 标", "粗", "码"}));
    EXPECT_EQ(formats[0].fontWeight(), QFont::Normal);
    EXPECT_EQ(formats[1].fontWeight(), QFont::Bold);
    EXPECT_TRUE(formats[3].fontItalic() && formats[5].fontStrikeOut() && formats[9].fontFixedPitch());
    EXPECT_EQ(formats[11].anchorHref(), "https://example.com/a?b=1");
    EXPECT_FALSE(formats[12].isAnchor());
    // Nested markup keeps the enclosing run's format.
    EXPECT_EQ(formats[11].fontWeight(), QFont::Bold);
    EXPECT_TRUE(formats[14].fontWeight() == QFont::Bold && formats[14].fontFixedPitch());
}

TEST_F(MarkdownRendererTest, AdversarialInputRendersWithoutFailing)
{
    // Thousands of openers: the text inside survives and nothing recurses without bound.
    const QString nested = QString("**[~~*").repeated(5000);
    render(nested + "中" + QString(nested).replace(u'[', u']'));
    EXPECT_TRUE(document.toPlainText().contains(u'中'));

    // Found by the fuzz target's linear-time check: every opener searched up to the one far closer
    // again, minutes for this line.
    const QString openers = QString(1000000, u'[') + "](";
    EXPECT_EQ(render(openers), QStringList{openers});
}

} // namespace
} // namespace velnora
