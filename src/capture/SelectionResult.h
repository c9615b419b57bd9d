#pragma once

#include <QRectF>
#include <QString>
#include <optional>

namespace velnora {

struct SelectionResult
{
    QString text; // trimmed, never empty
    // Where the selection is, in Qt's logical global coordinates; absent for clipboard text or when the
    // application did not tell.
    std::optional<QRectF> anchorRect;
};

} // namespace velnora
