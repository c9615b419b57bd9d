#pragma once

#include <QList>
#include <QObject>

class QWidget;

namespace velnora {

// Tints the field the user has to fix. A mark goes when the user types into its field, and its
// colour follows the theme of the page.
class FieldMarks : public QObject
{
    Q_OBJECT
public:
    FieldMarks(QWidget* page, QList<QWidget*> fields);

    void mark(QWidget* field);
    void clear();
    static bool isMarked(const QWidget* field);

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void unmark(QWidget* field);

    QWidget* m_page;
    QList<QWidget*> m_fields;
};

} // namespace velnora
