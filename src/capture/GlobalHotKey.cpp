#include "capture/GlobalHotKey.h"

#include "capture/CapturePlatform.h"

namespace velnora {

GlobalHotKey::GlobalHotKey(QObject* parent) : GlobalHotKey(CapturePlatform::createHotKeyBackend(), parent) {}

GlobalHotKey::GlobalHotKey(std::unique_ptr<HotKeyBackend> backend, QObject* parent)
    : QObject(parent), m_backend(std::move(backend))
{
    if (m_backend) {
        m_backend->observe([this](const QString& trigger) { Q_EMIT triggerReported(trigger); },
                           [this](const QString& message) { Q_EMIT failed(message); });
    }
}

QString GlobalHotKey::unavailableMessage() const
{
    if (m_backend || !CapturePlatform::isWaylandSession()) {
        return {};
    }
    return QStringLiteral(
        "当前 Wayland 桌面没有提供全局快捷键服务，快捷键无法直接生效。请在设置窗口点“设置系统快捷键”，"
        "或在系统设置中把命令 velnora --explain-selection 绑定到一个快捷键。");
}

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
