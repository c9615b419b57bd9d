#pragma once

#include "capture/HotKeyChoice.h"

#include <QGroupBox>
#include <functional>

class QComboBox;
class QKeySequenceEdit;
class QLabel;
class QPushButton;

namespace velnora {

class ResultLine;

// "全局快捷键": the three combinations and "自定义…", which records any combination with at least one
// of Ctrl, Alt and Super. A choice takes effect at once, as in the tray menu, so a taken key is
// reported while the user is still here.
class HotKeySection : public QGroupBox
{
    Q_OBJECT
public:
    // Registers and stores the choice; the sentence to show when it could not be registered.
    using Apply = std::function<std::optional<QString>(const HotKeyChoice&)>;

    // Gives the live key up (true) while the recorder listens, so that pressing it reaches the
    // recorder instead of starting an explanation, and takes it back (false) when nothing was chosen.
    using Hold = std::function<void(bool)>;

    HotKeySection(Apply apply, Hold hold = {}, QWidget* parent = nullptr);
    ~HotKeySection() override;

    // Shows the saved choice, and a conflict when it is not registered now.
    void load(const HotKeyChoice& current, bool registered, const QString& conflict);
    // Records a combination as if the user had pressed it in the recorder.
    void record(const QKeyCombination& combination);
    // Shows a choice made elsewhere (the tray menu).
    void showChoice(const HotKeyChoice& current) { showCurrent(current); }
    bool isRecording() const;

    QComboBox* choiceBox() const { return m_choices; }
    QKeySequenceEdit* recorder() const { return m_recorder; }
    ResultLine* resultLine() const { return m_result; }
    QPushButton* systemShortcutButton() const { return m_systemShortcut; }

private:
    void choose(int index);
    void apply(const HotKeyChoice& choice);
    void showCurrent(const HotKeyChoice& current);
    void endHold();
    void bindSystemShortcut();

    Apply m_apply;
    Hold m_hold;
    bool m_holding = false;
    QComboBox* m_choices;
    QLabel* m_recorderHint;
    QKeySequenceEdit* m_recorder;
    ResultLine* m_result;
    // On Wayland without a hot key of our own: the desktop runs our command on a key instead.
    QPushButton* m_systemShortcut;
    HotKeyChoice m_current;
};

} // namespace velnora
