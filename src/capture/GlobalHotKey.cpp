#include "capture/GlobalHotKey.h"

#include "capture/CapturePlatform.h"

namespace velnora {

GlobalHotKey::GlobalHotKey(QObject* parent) : GlobalHotKey(CapturePlatform::createHotKeyBackend(), parent) {}

GlobalHotKey::GlobalHotKey(std::unique_ptr<HotKeyBackend> backend, QObject* parent)
    : QObject(parent), m_backend(std::move(backend))
{
}

GlobalHotKey::~GlobalHotKey()
{
    if (m_backend) {
        m_backend->release();
    }
}

bool GlobalHotKey::registerChoice(const HotKeyChoice& choice, std::function<void()> action)
{
    if (m_backend) {
        m_backend->release();
    }
    m_action = std::move(action);
    if (!m_backend) {
        return false;
    }
    return m_backend->grab(choice.modifiers, choice.key, [this] { pressed(); });
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
