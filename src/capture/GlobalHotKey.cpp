#include "capture/GlobalHotKey.h"

#include "capture/CapturePlatform.h"

namespace velnora {

GlobalHotKey::GlobalHotKey(QObject* parent) : GlobalHotKey(CapturePlatform::createHotKeyBackend(), parent) {}

GlobalHotKey::GlobalHotKey(std::unique_ptr<HotKeyBackend> backend, QObject* parent)
    : QObject(parent), m_backend(std::move(backend))
{}

GlobalHotKey::~GlobalHotKey()
{
    release();
}

void GlobalHotKey::release()
{
    if (m_backend) {
        m_backend->release();
    }
}

bool GlobalHotKey::registerChoice(const HotKeyChoice& choice, std::function<void()> action)
{
    release();
    m_action = std::move(action);
    const bool grabbed = m_backend && m_backend->grab(choice.modifiers, choice.key, [this] { pressed(); });
    if (std::exchange(m_conflict, !grabbed) != !grabbed) {
        Q_EMIT conflictChanged(m_conflict);
    }
    return grabbed;
}

void GlobalHotKey::pressed()
{
    // The action is looked up when the queued call runs, so a re-registration in between wins.
    QMetaObject::invokeMethod(
        this,
        [this] {
            if (m_action) {
                m_action();
            }
        },
        Qt::QueuedConnection);
}

} // namespace velnora
