#include "overlay/MarkdownRenderer.h"

#include <QTextBlockFormat>
#include <QTextCharFormat>
#include <QTextCursor>
#include <QTextDocument>
#include <QUrl>
#include <algorithm>
#include <array>
#include <optional>

namespace velnora::MarkdownRenderer {

namespace {

constexpr qreal bodySize = 15;
constexpr qreal codeSize = 13.5;
constexpr qreal smallSize = 11;
// Markup nested deeper than this is shown as written; it keeps adversarial input off the stack.
constexpr int maxInlineDepth = 24;

QStringView trimSpacesAndTabs(QStringView line)
{
    qsizetype begin = 0;
    qsizetype end = line.size();
    while (begin < end && (line[begin] == u' ' || line[begin] == u'\t')) {
        ++begin;
    }
    while (end > begin && (line[end - 1] == u' ' || line[end - 1] == u'\t')) {
        --end;
    }
    return line.sliced(begin, end - begin);
}

struct Heading
{
    int level;
    QStringView text;
};

std::optional<Heading> heading(QStringView line)
{
    int level = 0;
    while (level < line.size() && level < 7 && line[level] == u'#') {
        ++level;
    }
    if (level < 1 || level > 6 || level >= line.size() || line[level] != u' ') {
        return std::nullopt;
    }
    return Heading{level, line.sliced(level + 1)};
}

bool isHorizontalRule(QStringView line)
{
    QChar first;
    int count = 0;
    for (QChar c : line) {
        if (c == u' ') {
            continue;
        }
        if (count == 0) {
            if (c != u'-' && c != u'*' && c != u'_') {
                return false;
            }
            first = c;
        } else if (c != first) {
            return false;
        }
        ++count;
    }
    return count >= 3;
}

std::optional<QStringView> unorderedListItem(QStringView line)
{
    if (line.size() < 2 || (line[0] != u'-' && line[0] != u'*' && line[0] != u'+') || line[1] != u' ') {
        return std::nullopt;
    }
    return line.sliced(2);
}

struct OrderedItem
{
    qlonglong number;
    QStringView text;
};

std::optional<OrderedItem> orderedListItem(QStringView line)
{
    qsizetype digits = 0;
    while (digits < line.size() && line[digits].isDigit()) {
        ++digits;
    }
    if (digits == 0 || digits + 1 >= line.size() || (line[digits] != u'.' && line[digits] != u')') ||
        line[digits + 1] != u' ') {
        return std::nullopt;
    }
    bool ok = false;
    const qlonglong number = line.first(digits).toLongLong(&ok, 10);
    const QStringView text = line.sliced(digits + 2);
    if (!ok || text.isEmpty()) {
        return std::nullopt;
    }
    return OrderedItem{number, text};
}

bool startsBlock(QStringView trimmed)
{
    return trimmed.startsWith(u"```") || heading(trimmed) || unorderedListItem(trimmed) ||
           orderedListItem(trimmed) || trimmed.startsWith(u'>') || isHorizontalRule(trimmed);
}

QTextBlockFormat blockStyle(qreal before, qreal after, qreal lineSpacing)
{
    QTextBlockFormat format;
    format.setTopMargin(before);
    format.setBottomMargin(after);
    format.setLineHeight(lineSpacing, QTextBlockFormat::LineDistanceHeight);
    return format;
}

QTextCharFormat charStyle(const QFont& font, const QColor& colour)
{
    QTextCharFormat format;
    format.setFont(font, QTextCharFormat::FontPropertiesAll);
    format.setForeground(colour);
    return format;
}

// Searches for closing tokens. Once a token is known to be absent after some index it is absent after
// every later one, and the last hit stays the next one for every later start up to it; so a line of many
// openers before one far closer ("[[[[...](") scans that line once, not once per opener.
class TokenSearch
{
public:
    enum Token { backtick, doubleStar, doubleUnderscore, doubleTilde, star, linkMiddle, closeParen, count };

    explicit TokenSearch(QStringView text) : m_text(text)
    {
        m_absentFrom.fill(text.size() + 1);
        m_foundAt.fill(-1);
    }

    std::optional<qsizetype> find(Token token, qsizetype from)
    {
        if (from >= m_absentFrom[token]) {
            return std::nullopt;
        }
        if (from >= m_searchedFrom[token] && from <= m_foundAt[token]) {
            return m_foundAt[token];
        }
        const qsizetype found = m_text.indexOf(spelling(token), from);
        if (found < 0) {
            m_absentFrom[token] = from;
            return std::nullopt;
        }
        m_searchedFrom[token] = from;
        m_foundAt[token] = found;
        return found;
    }

private:
    static QStringView spelling(Token token)
    {
        static constexpr std::array<const char16_t*, count> spellings{u"`", u"**", u"__", u"~~",
                                                                      u"*", u"](", u")"};
        return QStringView(spellings[token]);
    }

    QStringView m_text;
    std::array<qsizetype, count> m_absentFrom{};
    std::array<qsizetype, count> m_searchedFrom{};
    std::array<qsizetype, count> m_foundAt{};
};

class Writer
{
public:
    Writer(QTextDocument& document, const SemanticColors& colours) : m_cursor(&document), m_colours(colours)
    {}

    QTextCursor& cursor() { return m_cursor; }

    void startBlock(const QTextBlockFormat& block, const QTextCharFormat& chars)
    {
        if (m_first) {
            m_cursor.setBlockFormat(block);
            m_cursor.setBlockCharFormat(chars);
            m_first = false;
        } else {
            m_cursor.insertBlock(block, chars);
        }
    }

    void appendInline(QStringView text, const QTextCharFormat& format, int depth = 0)
    {
        if (depth > maxInlineDepth) {
            insert(text, format);
            return;
        }
        TokenSearch search(text);
        QString plain;
        auto flush = [&] {
            insert(plain, format);
            plain.clear();
        };
        auto styled = [&](qsizetype open, qsizetype close, qsizetype markerLength,
                          const QTextCharFormat& inner) {
            flush();
            appendInline(text.sliced(open + markerLength, close - open - markerLength), inner, depth + 1);
        };

        qsizetype i = 0;
        const qsizetype n = text.size();
        while (i < n) {
            const QChar c = text[i];
            const bool doubled = i + 1 < n && text[i + 1] == c;
            if (c == u'`') {
                if (const auto close = search.find(TokenSearch::backtick, i + 1)) {
                    flush();
                    insert(text.sliced(i + 1, *close - i - 1), inlineCode(format));
                    i = *close + 1;
                    continue;
                }
            } else if (doubled && (c == u'*' || c == u'_' || c == u'~')) {
                const auto token = c == u'*'   ? TokenSearch::doubleStar
                                   : c == u'_' ? TokenSearch::doubleUnderscore
                                               : TokenSearch::doubleTilde;
                if (const auto close = search.find(token, i + 2)) {
                    QTextCharFormat inner = format;
                    if (c == u'~') {
                        inner.setFontStrikeOut(true);
                    } else {
                        inner.setFontWeight(QFont::Bold);
                    }
                    styled(i, *close, 2, inner);
                    i = *close + 2;
                    continue;
                }
                // An unclosed pair is shown as written, not as an empty emphasis.
                plain += c;
                plain += c;
                i += 2;
                continue;
            } else if (c == u'*') {
                const auto close = search.find(TokenSearch::star, i + 1);
                if (close && *close > i + 1) {
                    QTextCharFormat inner = format;
                    inner.setFontItalic(true);
                    styled(i, *close, 1, inner);
                    i = *close + 1;
                    continue;
                }
            } else if (c == u'[') {
                if (const auto middle = search.find(TokenSearch::linkMiddle, i + 1)) {
                    if (const auto close = search.find(TokenSearch::closeParen, *middle + 2)) {
                        const QStringView label = text.sliced(i + 1, *middle - i - 1);
                        const QUrl url(text.sliced(*middle + 2, *close - *middle - 2).toString(),
                                       QUrl::StrictMode);
                        if (url.isValid() && !url.scheme().isEmpty()) {
                            QTextCharFormat inner = format;
                            inner.setAnchor(true);
                            inner.setAnchorHref(url.toString());
                            inner.setForeground(m_colours.link);
                            inner.setUnderlineStyle(QTextCharFormat::SingleUnderline);
                            flush();
                            appendInline(label, inner, depth + 1);
                        } else {
                            plain += text.sliced(i, *close + 1 - i);
                        }
                        i = *close + 1;
                        continue;
                    }
                }
            }
            plain += c;
            ++i;
        }
        flush();
    }

    void insert(QStringView text, const QTextCharFormat& format)
    {
        if (!text.isEmpty()) {
            m_cursor.insertText(text.toString(), format);
        }
    }

    QTextCharFormat inlineCode(const QTextCharFormat& enclosing) const
    {
        QTextCharFormat format = enclosing;
        QFont font = codeFont();
        font.setWeight(enclosing.font().weight());
        font.setItalic(enclosing.fontItalic());
        format.setFont(font, QTextCharFormat::FontPropertiesAll);
        format.setFontStrikeOut(enclosing.fontStrikeOut());
        format.setUnderlineStyle(enclosing.underlineStyle());
        format.setBackground(m_colours.inlineCodeBackground);
        return format;
    }

private:
    QTextCursor m_cursor;
    const SemanticColors& m_colours;
    bool m_first = true;
};

void appendParagraph(Writer& writer, QStringView text, const SemanticColors& colours)
{
    const QTextCharFormat chars = charStyle(bodyFont(), colours.label);
    writer.startBlock(blockStyle(0, 8, 3), chars);
    writer.appendInline(text, chars);
}

void appendHeading(Writer& writer, const Heading& heading, const SemanticColors& colours)
{
    const QTextCharFormat chars = charStyle(headingFont(heading.level), colours.label);
    QTextBlockFormat block = blockStyle(8, 6, 2);
    block.setHeadingLevel(heading.level);
    writer.startBlock(block, chars);
    writer.appendInline(heading.text, chars);
}

void appendListItem(Writer& writer, const QString& prefix, QStringView text, const SemanticColors& colours)
{
    // The first line starts at 4, wrapped lines and the text after the tab at 28.
    QTextBlockFormat block = blockStyle(0, 4, 3);
    block.setLeftMargin(28);
    block.setTextIndent(4 - 28);
    block.setTabPositions({QTextOption::Tab(28, QTextOption::LeftTab)});
    const QTextCharFormat chars = charStyle(bodyFont(), colours.label);
    writer.startBlock(block, chars);
    writer.insert(QString(prefix + u'\t'), chars);
    writer.appendInline(text, chars);
}

void appendQuote(Writer& writer, QStringView text, const SemanticColors& colours)
{
    QTextBlockFormat block = blockStyle(0, 7, 3);
    block.setLeftMargin(22);
    block.setTextIndent(4 - 22);
    const QTextCharFormat marker = charStyle(bodyFont(), colours.accent);
    QTextCharFormat body = charStyle(bodyFont(), colours.secondaryLabel);
    body.setFontItalic(true);
    writer.startBlock(block, body);
    writer.insert(QStringView(quoteMarker), marker);
    writer.appendInline(text, body);
}

void appendCodeBlock(Writer& writer, const QString& body, QStringView language, const SemanticColors& colours)
{
    // The spacing counts from the panel's edge, which lies codePanelPadding outside the text.
    QTextBlockFormat block = blockStyle(5 + codePanelPadding, 9 + codePanelPadding, 2);
    block.setLeftMargin(10);
    block.setRightMargin(10);
    block.setProperty(codePanelProperty, colours.controlBackground);
    if (!language.isEmpty()) {
        QTextBlockFormat label = block;
        label.setBottomMargin(0);
        writer.startBlock(
            label, charStyle(OverlayStyle::uiFont(smallSize, QFont::DemiBold), colours.secondaryLabel));
        writer.insert(language,
                      charStyle(OverlayStyle::uiFont(smallSize, QFont::DemiBold), colours.secondaryLabel));
        block.setTopMargin(0);
    }
    const QTextCharFormat chars = charStyle(codeFont(), colours.label);
    writer.startBlock(block, chars);
    // One block for the whole listing, so that its background is one panel and spacing applies once.
    QString text = body;
    text.replace(u'\n', QChar::LineSeparator);
    writer.insert(text, chars);
}

void appendHorizontalRule(Writer& writer, const SemanticColors& colours)
{
    const QTextCharFormat chars = charStyle(OverlayStyle::uiFont(smallSize), colours.separator);
    writer.startBlock(blockStyle(5, 7, 0), chars);
    writer.insert(horizontalRuleText(), chars);
}

} // namespace

QFont bodyFont()
{
    static const QFont font = OverlayStyle::uiFont(bodySize);
    return font;
}

QFont codeFont()
{
    static const QFont font = OverlayStyle::monoFont(codeSize);
    return font;
}

QFont headingFont(int level)
{
    static const std::array<QFont, 4> fonts{
        OverlayStyle::uiFont(22, QFont::Bold), OverlayStyle::uiFont(19, QFont::Bold),
        OverlayStyle::uiFont(17, QFont::DemiBold), OverlayStyle::uiFont(15.5, QFont::DemiBold)};
    return fonts[std::clamp(level, 1, 4) - 1];
}

QString horizontalRuleText()
{
    return QString(24, QChar(0x2500));
}

void render(const QString& markdown, QTextDocument& document)
{
    render(markdown, document, SemanticColors::current());
}

QString fenceCloser(const QString& markdown)
{
    QString normalised = markdown;
    normalised.replace(u'\r', u'\n');
    bool open = false;
    for (QStringView line : QStringView(normalised).split(u'\n')) {
        // Fences open and close on the same test as in render, so both agree on what is code.
        if (trimSpacesAndTabs(line).startsWith(u"```")) {
            open = !open;
        }
    }
    if (!open) {
        return {};
    }
    return markdown.endsWith(u'\n') ? QStringLiteral("```\n") : QStringLiteral("\n```\n");
}

void render(const QString& markdown, QTextDocument& document, const SemanticColors& colours)
{
    document.setUndoRedoEnabled(false);
    document.clear();
    Writer writer(document, colours);
    writer.cursor().beginEditBlock();

    QString normalised = markdown;
    normalised.replace(QStringLiteral("\r\n"), QStringLiteral("\n"));
    normalised.replace(u'\r', u'\n');
    const QList<QStringView> lines = QStringView(normalised).split(u'\n');

    qsizetype index = 0;
    while (index < lines.size()) {
        const QStringView line = trimSpacesAndTabs(lines[index]);
        ++index;
        if (line.isEmpty()) {
            continue;
        }
        if (line.startsWith(u"```")) {
            const QStringView language = line.sliced(3).trimmed();
            QString body;
            bool firstLine = true;
            while (index < lines.size()) {
                const QStringView bodyLine = lines[index];
                ++index;
                if (trimSpacesAndTabs(bodyLine).startsWith(u"```")) {
                    break;
                }
                if (!firstLine) {
                    body += u'\n';
                }
                body += bodyLine;
                firstLine = false;
            }
            appendCodeBlock(writer, body, language, colours);
        } else if (const auto found = heading(line)) {
            appendHeading(writer, *found, colours);
        } else if (isHorizontalRule(line)) {
            appendHorizontalRule(writer, colours);
        } else if (const auto item = unorderedListItem(line)) {
            appendListItem(writer, QStringLiteral("\u2022"), *item, colours);
        } else if (const auto ordered = orderedListItem(line)) {
            appendListItem(writer, QString::number(ordered->number) + u'.', ordered->text, colours);
        } else if (line.startsWith(u'>')) {
            appendQuote(writer, trimSpacesAndTabs(line.sliced(1)), colours);
        } else {
            QString paragraph = line.toString();
            while (index < lines.size()) {
                const QStringView next = trimSpacesAndTabs(lines[index]);
                if (next.isEmpty() || startsBlock(next)) {
                    break;
                }
                paragraph += u' ';
                paragraph += next;
                ++index;
            }
            appendParagraph(writer, paragraph, colours);
        }
    }
    writer.cursor().endEditBlock();
}

} // namespace velnora::MarkdownRenderer
