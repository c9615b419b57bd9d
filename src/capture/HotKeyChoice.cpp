#include "capture/HotKeyChoice.h"

namespace velnora {

const std::vector<HotKeyChoice>& HotKeyChoice::all()
{
    static const std::vector<HotKeyChoice> choices{
        {QStringLiteral("option-command-e"), QStringLiteral("Ctrl+Alt+E"), Qt::ControlModifier | Qt::AltModifier},
        {QStringLiteral("control-option-e"), QStringLiteral("Super+Alt+E"), Qt::MetaModifier | Qt::AltModifier},
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

} // namespace velnora
