#include "app/settings/FieldMarks.h"

#include "app/settings/ResultLine.h"

#include <QEvent>
#include <QWidget>

namespace velnora {

namespace {
constexpr const char* markProperty = "velnoraMarked";
}

FieldMarks::FieldMarks(QWidget* page, QList<QWidget*> fields)
    : QObject(page), m_page(page), m_fields(std::move(fields))
{
    m_page->installEventFilter(this);
    for (QWidget* field : m_fields) {
        field->installEventFilter(this);
        // An editable combo box receives the keys in its line edit.
        for (QWidget* child : field->findChildren<QWidget*>()) {
            child->installEventFilter(this);
        }
    }
}

bool FieldMarks::isMarked(const QWidget* field)
{
    return field && field->property(markProperty).toBool();
}

void FieldMarks::mark(QWidget* field)
{
    field->setProperty(markProperty, true);
    QPalette marked; // only the base colour; the rest follows the theme
    marked.setColor(QPalette::Base,
                    ResultLine::colours(Tone::error, ResultLine::isDark(m_page->palette())).background);
    field->setPalette(marked);
}

void FieldMarks::unmark(QWidget* field)
{
    if (isMarked(field)) {
        field->setProperty(markProperty, false);
        field->setPalette(QPalette());
    }
}

void FieldMarks::clear()
{
    for (QWidget* field : m_fields) {
        unmark(field);
    }
}

bool FieldMarks::eventFilter(QObject* watched, QEvent* event)
{
    if (watched == m_page && event->type() == QEvent::PaletteChange) {
        for (QWidget* field : m_fields) {
            if (isMarked(field)) {
                mark(field);
            }
        }
    } else if (event->type() == QEvent::KeyPress) {
        for (QWidget* field : m_fields) {
            if (field == watched || field->isAncestorOf(qobject_cast<QWidget*>(watched))) {
                unmark(field);
            }
        }
    }
    return QObject::eventFilter(watched, event);
}

} // namespace velnora
