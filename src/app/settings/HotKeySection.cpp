#include "app/settings/HotKeySection.h"

#include "app/settings/ResultLine.h"
#include "capture/CapturePlatform.h"
#include "capture/GnomeCustomKeybinding.h"
#include "capture/KeySymbol.h"

#include <QComboBox>
#include <QHBoxLayout>
#include <QKeySequenceEdit>
#include <QLabel>
#include <QPushButton>
#include <QSignalBlocker>
#include <QVBoxLayout>

namespace velnora {

namespace {

const QString customData = QStringLiteral("custom");
constexpr Qt::KeyboardModifiers anchorModifiers = Qt::ControlModifier | Qt::AltModifier | Qt::MetaModifier;

} // namespace

HotKeySection::HotKeySection(Apply apply, Hold hold, QWidget* parent)
    : QGroupBox(QStringLiteral("全局快捷键"), parent), m_apply(std::move(apply)), m_hold(std::move(hold)),
      m_current(HotKeyChoice::all().front())
{
    m_choices = new QComboBox(this);
    m_choices->setAccessibleName(QStringLiteral("全局快捷键"));
    auto* label = new QLabel(QStringLiteral("组合键(&H)"), this);
    label->setBuddy(m_choices);

    m_recorderHint = new QLabel(QStringLiteral("按下新的组合键："), this);
    m_recorder = new QKeySequenceEdit(this);
    m_recorder->setAccessibleName(QStringLiteral("自定义快捷键"));
    m_result = new ResultLine(this, 2);
    m_systemShortcut = new QPushButton(QStringLiteral("设置系统快捷键(&S)"), this);
    m_systemShortcut->hide();

    auto* choiceRow = new QHBoxLayout;
    choiceRow->addWidget(label);
    choiceRow->addWidget(m_choices, 1);
    choiceRow->addSpacing(12);
    choiceRow->addWidget(m_recorderHint);
    choiceRow->addWidget(m_recorder, 1);
    auto* layout = new QVBoxLayout(this);
    layout->setSpacing(8);
    layout->addLayout(choiceRow);
    layout->addWidget(m_result);
    layout->addWidget(m_systemShortcut, 0, Qt::AlignLeft);
    // The recorder row keeps its place while hidden, so choosing "自定义…" moves nothing.
    for (QWidget* widget : {static_cast<QWidget*>(m_recorderHint), static_cast<QWidget*>(m_recorder)}) {
        QSizePolicy policy = widget->sizePolicy();
        policy.setRetainSizeWhenHidden(true);
        widget->setSizePolicy(policy);
        widget->hide();
    }

    connect(m_choices, &QComboBox::activated, this, &HotKeySection::choose);
    connect(m_systemShortcut, &QPushButton::clicked, this, &HotKeySection::bindSystemShortcut);
    connect(m_recorder, &QKeySequenceEdit::editingFinished, this, [this] {
        const QKeySequence sequence = m_recorder->keySequence();
        if (!sequence.isEmpty()) {
            record(sequence[0]);
        }
    });
}

HotKeySection::~HotKeySection()
{
    endHold();
}

void HotKeySection::endHold()
{
    if (m_holding) {
        m_holding = false;
        m_hold(false);
    }
}

void HotKeySection::load(const HotKeyChoice& current, bool registered, const QString& conflict)
{
    showCurrent(current);
    if (registered) {
        m_result->clearMessage();
    } else {
        m_result->showMessage(conflict, Tone::error);
    }
    m_systemShortcut->setVisible(!registered && CapturePlatform::isWaylandSession());
}

void HotKeySection::bindSystemShortcut()
{
    const GnomeCustomKeybinding::Result result = GnomeCustomKeybinding::bind(m_current);
    switch (result.outcome) {
    case GnomeCustomKeybinding::Outcome::bound:
        m_result->showMessage(result.message, Tone::success);
        break;
    case GnomeCustomKeybinding::Outcome::taken:
        m_result->showMessage(result.message, Tone::warning);
        break;
    case GnomeCustomKeybinding::Outcome::unavailable:
        m_result->showMessage(result.message, Tone::info);
        break;
    }
}

void HotKeySection::showCurrent(const HotKeyChoice& current)
{
    m_current = current;
    const QSignalBlocker blocker(m_choices);
    m_choices->clear();
    for (const HotKeyChoice& choice : HotKeyChoice::all()) {
        m_choices->addItem(choice.title, choice.id);
    }
    if (current.isCustom()) {
        m_choices->addItem(current.title, current.id);
    }
    m_choices->addItem(QStringLiteral("自定义…"), customData);
    m_choices->setCurrentIndex(m_choices->findData(current.id));
    m_recorderHint->hide();
    m_recorder->hide();
    endHold();
}

bool HotKeySection::isRecording() const
{
    return !m_recorder->isHidden();
}

void HotKeySection::choose(int index)
{
    const QString id = m_choices->itemData(index).toString();
    if (id == customData) {
        if (!m_holding && m_hold) {
            m_holding = true;
            m_hold(true);
        }
        m_recorder->clear();
        m_recorderHint->show();
        m_recorder->show();
        m_recorder->setFocus(Qt::OtherFocusReason);
        m_result->showMessage(QStringLiteral("按下想用的组合键，至少包含 Ctrl、Alt 或 Super 中的一个。"),
                              Tone::info);
        return;
    }
    apply(HotKeyChoice::fromID(id));
}

void HotKeySection::record(const QKeyCombination& combination)
{
    const Qt::Key key = combination.key();
    const bool modifierOnly = key == Qt::Key_Control || key == Qt::Key_Alt || key == Qt::Key_Meta ||
                              key == Qt::Key_Shift || key == Qt::Key_Super_L || key == Qt::Key_Super_R;
    if (!(combination.keyboardModifiers() & anchorModifiers) || modifierOnly) {
        m_recorder->clear();
        m_result->showMessage(
            QStringLiteral("组合键至少要包含 Ctrl、Alt 或 Super 中的一个，再加一个普通键，请重新按。"),
            Tone::warning);
        return;
    }
    if (KeySymbol::of(key) == 0) {
        m_recorder->clear();
        m_result->showMessage(QStringLiteral("这个键不能用作全局快捷键，请换一个普通键再按。"), Tone::warning);
        return;
    }
    apply(HotKeyChoice::custom(combination.keyboardModifiers(), key));
}

void HotKeySection::apply(const HotKeyChoice& choice)
{
    m_holding = false; // applying registers the new key, which ends the hold by itself
    const std::optional<QString> failure = m_apply ? m_apply(choice) : std::nullopt;
    showCurrent(choice);
    if (failure) {
        m_result->showMessage(*failure, Tone::error);
    } else {
        m_result->showMessage(QStringLiteral("全局快捷键：") + choice.title, Tone::success);
    }
}

} // namespace velnora
