#pragma once

#include <QString>
#include <optional>
#include <vector>

namespace velnora {

// One of the three combinations the user may pick. The ids are what settings store and never change;
// "command" stands for Ctrl, "option" for Alt and "control" for Super.
struct HotKeyChoice
{
    QString id;
    QString title;
    Qt::KeyboardModifiers modifiers;
    Qt::Key key = Qt::Key_E;

    // In menu order; the first is the default.
    static const std::vector<HotKeyChoice>& all();
    // The entry with exactly this id, else the default.
    static const HotKeyChoice& choice(const std::optional<QString>& id);

    // A combination the user recorded: id "custom:" + the portable key text ("custom:Ctrl+Shift+K").
    static HotKeyChoice custom(Qt::KeyboardModifiers modifiers, Qt::Key key);
    // Like choice(), and also understands recorded combinations.
    static HotKeyChoice fromID(const std::optional<QString>& id);
    bool isCustom() const;

    friend bool operator==(const HotKeyChoice&, const HotKeyChoice&) = default;
};

} // namespace velnora
