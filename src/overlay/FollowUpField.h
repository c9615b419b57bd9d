#pragma once

#include <QLineEdit>

namespace velnora {

// The follow-up input. The card is shown without taking the focus; a click here asks for it, so that
// typing goes into the field and not into the application the user came from.
class FollowUpField : public QLineEdit
{
    Q_OBJECT
public:
    explicit FollowUpField(QWidget* parent = nullptr);

protected:
    void mousePressEvent(QMouseEvent* event) override;
};

} // namespace velnora
