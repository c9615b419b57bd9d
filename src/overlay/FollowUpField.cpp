#include "overlay/FollowUpField.h"

#include <QMouseEvent>

namespace velnora {

FollowUpField::FollowUpField(QWidget* parent) : QLineEdit(parent)
{
    setPlaceholderText(QStringLiteral("继续追问…"));
    setAccessibleName(QStringLiteral("继续追问"));
    setClearButtonEnabled(false);
}

void FollowUpField::mousePressEvent(QMouseEvent* event)
{
    if (isEnabled()) {
        window()->activateWindow();
        setFocus(Qt::MouseFocusReason);
    }
    QLineEdit::mousePressEvent(event);
}

} // namespace velnora
