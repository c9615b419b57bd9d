#pragma once

#include "capture/HotKeyBackend.h"
#include "capture/HotKeyChoice.h"

#include <QObject>
#include <functional>
#include <memory>

namespace velnora {

// The system-wide key that starts an explanation. Holds one combination at a time; a press runs the
// action later on the main thread, never inside event delivery.
class GlobalHotKey : public QObject
{
    Q_OBJECT
public:
    explicit GlobalHotKey(QObject* parent = nullptr);
    explicit GlobalHotKey(std::unique_ptr<HotKeyBackend> backend, QObject* parent = nullptr);
    ~GlobalHotKey() override;

    // Drops the previous combination first, so a failure leaves none. False when the combination is
    // taken by another application or no hot key can be grabbed in this session.
    bool registerChoice(const HotKeyChoice& choice, std::function<void()> action);
    // The combination last asked for is not held: another application has it, or none can be grabbed.
    bool hasConflict() const { return m_conflict; }
    // Gives up the combination (at quit, or while a new one is recorded), so the key works elsewhere
    // at once.
    void release();
    // Why no hot key can exist in this session at all (a Wayland desktop without the shortcuts portal),
    // as the user should read it; empty where one can.
    QString unavailableMessage() const;
    // The desktop decides which key it is (Wayland portal); our choice was only a wish.
    bool desktopOwnsKey() const { return m_backend && m_backend->desktopOwnsKey(); }

Q_SIGNALS:
    void conflictChanged(bool conflict);
    // The key the desktop bound for us (Wayland portal), as it describes it; empty while it names none.
    void triggerReported(const QString& trigger);
    // A failure that came after registerChoice() returned; the hot key is gone.
    void failed(const QString& message);

private:
    void pressed();

    std::unique_ptr<HotKeyBackend> m_backend;
    std::function<void()> m_action;
    bool m_conflict = false;
};

} // namespace velnora
