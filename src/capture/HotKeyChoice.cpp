#include "capture/HotKeyChoice.h"

#include <QKeySequence>

namespace velnora {

const std::vector<HotKeyChoice>& HotKeyChoice::all()
{
    static const std::vector<HotKeyChoice> choices{
        {QStringLiteral("option-command-e"), QStringLiteral("Ctrl+Alt+E"),
         Qt::ControlModifier | Qt::AltModifier},
        {QStringLiteral("control-option-e"), QStringLiteral("Super+Alt+E"),
         Qt::MetaModifier | Qt::AltModifier},
        {QStringLiteral("control-command-e"), QStringLiteral("Ctrl+Super+E"),
         Qt::ControlModifier | Qt::MetaModifier},
    };
    return choices;
}

const HotKeyChoice& HotKeyChoice::choice(const std::optional<QString>& id)
{
    if (id) {
        for (const HotKeyChoice& entry : all()) {
            if (entry.id == *id) {
                return entry;
            }
        }
    }
    return all().front();
}

namespace {
const QString customPrefix = QStringLiteral("custom:");
}

HotKeyChoice HotKeyChoice::custom(Qt::KeyboardModifiers modifiers, Qt::Key key)
{
    const QKeySequence sequence(QKeyCombination(modifiers, key));
    // Qt names the Super key "Meta"; desktops call it Super.
    QString title = sequence.toString(QKeySequence::PortableText);
    title.replace(QStringLiteral("Meta"), QStringLiteral("Super"));
    return {customPrefix + sequence.toString(QKeySequence::PortableText), title, modifiers, key};
}

HotKeyChoice HotKeyChoice::fromID(const std::optional<QString>& id)
{
    if (id && id->startsWith(customPrefix)) {
        const QKeySequence sequence =
            QKeySequence::fromString(id->mid(customPrefix.size()), QKeySequence::PortableText);
        if (sequence.count() == 1 && sequence[0].keyboardModifiers() != Qt::NoModifier) {
            return custom(sequence[0].keyboardModifiers(), sequence[0].key());
        }
    }
    return choice(id);
}

bool HotKeyChoice::isCustom() const
{
    return id.startsWith(customPrefix);
}

} // namespace velnora
