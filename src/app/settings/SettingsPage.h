#pragma once

#include "app/settings/ResultLine.h"

#include <QLabel>
#include <QWidget>
#include <optional>

namespace velnora {

// One tab of the settings window. The window loads every page when it opens, asks every page
// whether it may save before any page writes, and switches to a page that refuses.
class SettingsPage : public QWidget
{
    Q_OBJECT
public:
    using QWidget::QWidget;

    // Fills the page from the configuration store (and the keychain).
    virtual void load() = 0;
    // Why the page cannot be saved as it stands (the page marks and focuses the field); none when fine.
    virtual std::optional<QString> refusal() = 0;
    // Writes the page through the configuration store; only called after no page refused.
    virtual void save() = 0;
    // Whether the page holds edits that were not saved.
    virtual bool isModified() const = 0;
    // Whether the page still waits for work it started (a key being stored, a request).
    virtual bool isBusy() const { return false; }
    // Whether a write the user asked for has not answered yet; the window stays open for it.
    virtual bool isWriting() const { return false; }

    // A field's label whose mnemonic (the letter after '&') focuses the field.
    static QLabel* labelFor(const QString& text, QWidget* field, QWidget* parent)
    {
        auto* label = new QLabel(text, parent);
        label->setBuddy(field);
        return label;
    }

Q_SIGNALS:
    // A sentence for the window's status line, for outcomes that arrive after save() returned.
    void reported(const QString& message, Tone tone);
    // isBusy() or isWriting() may have changed.
    void busyChanged();
};

} // namespace velnora
