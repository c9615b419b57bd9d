#include "llm/ApiKeyCheck.h"

#include <QList>

namespace velnora::ApiKeyCheck {

namespace {

QString codePoint(char32_t c)
{
    return QStringLiteral("U+") + QString::number(uint(c), 16).toUpper().rightJustified(4, u'0');
}

// How the character is called in the sentence: invisible ones by name, visible ones as themselves.
QString characterText(char32_t c)
{
    switch (c) {
    case 0x200B:
        return QStringLiteral("看不见的零宽空格（U+200B）");
    case 0x200C:
    case 0x200D:
    case 0x2060:
        return QStringLiteral("看不见的零宽连接符（%1）").arg(codePoint(c));
    case 0xFEFF:
        return QStringLiteral("看不见的字节顺序标记（U+FEFF）");
    case 0x00A0:
        return QStringLiteral("不换行空格（U+00A0）");
    case 0x3000:
        return QStringLiteral("全角空格（U+3000）");
    default:
        break;
    }
    if (c >= 0xFF01 && c <= 0xFF5E) {
        return QStringLiteral("全角字符“%1”（应为半角的“%2”）")
            .arg(QString::fromUcs4(&c, 1), QChar(char16_t(c - 0xFF01 + 0x21)));
    }
    const QChar::Category category = QChar::category(c);
    if (c < 0x20 || c == 0x7F || category == QChar::Other_Control) {
        return QStringLiteral("控制字符（%1）").arg(codePoint(c));
    }
    if (category == QChar::Other_Format || QChar::isSpace(c)) {
        return QStringLiteral("看不见的字符（%1）").arg(codePoint(c));
    }
    return QStringLiteral("“%1”（%2）").arg(QString::fromUcs4(&c, 1), codePoint(c));
}

} // namespace

std::optional<QString> problem(const QString& key)
{
    int position = 0;
    for (const uint c : key.toUcs4()) {
        ++position;
        if (c >= 0x20 && c <= 0x7E) {
            continue;
        }
        return QStringLiteral("API Key 的第 %1 个字符是%2，Key "
                              "里只能有英文字母、数字和常见符号。请删掉它，或重新复制 Key。")
            .arg(position)
            .arg(characterText(c));
    }
    return std::nullopt;
}

} // namespace velnora::ApiKeyCheck
