#include "capture/x11/AtspiAccessibilityProbe.h"

#include "config/SessionBus.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <algorithm>
#include <atspi/atspi.h>

namespace velnora {

using namespace std::chrono_literals;

namespace {

constexpr auto defaultCallTimeout = 800ms;
constexpr int nodeBudget = 600;
constexpr int widestNodeWalked = 256;

void clear(GError*& error)
{
    if (error) {
        g_error_free(error);
        error = nullptr;
    }
}

// A strong reference to an AT-SPI object.
class Ref
{
public:
    Ref() = default;
    explicit Ref(AtspiAccessible* adopted) : m_object(adopted) {}
    Ref(const Ref&) = delete;
    Ref& operator=(const Ref&) = delete;
    Ref(Ref&& other) noexcept : m_object(std::exchange(other.m_object, nullptr)) {}
    Ref& operator=(Ref&& other) noexcept
    {
        std::swap(m_object, other.m_object);
        return *this;
    }
    ~Ref()
    {
        if (m_object) {
            g_object_unref(m_object);
        }
    }
    AtspiAccessible* get() const { return m_object; }
    AtspiAccessible* release() { return std::exchange(m_object, nullptr); }
    explicit operator bool() const { return m_object != nullptr; }

private:
    AtspiAccessible* m_object = nullptr;
};

struct States
{
    bool focused = false;
    bool active = false;
    bool showing = false;
    bool defunct = true;
};

States statesOf(AtspiAccessible* object)
{
    States states;
    AtspiStateSet* set = atspi_accessible_get_state_set(object);
    if (!set) {
        return states;
    }
    states.focused = atspi_state_set_contains(set, ATSPI_STATE_FOCUSED);
    states.active = atspi_state_set_contains(set, ATSPI_STATE_ACTIVE);
    states.showing = atspi_state_set_contains(set, ATSPI_STATE_SHOWING);
    states.defunct = atspi_state_set_contains(set, ATSPI_STATE_DEFUNCT);
    g_object_unref(set);
    return states;
}

std::vector<Ref> childrenOf(AtspiAccessible* object, int limit)
{
    std::vector<Ref> children;
    GError* error = nullptr;
    const int count = atspi_accessible_get_child_count(object, &error);
    clear(error);
    for (int i = 0; i < count && i < limit; ++i) {
        Ref child(atspi_accessible_get_child_at_index(object, i, &error));
        clear(error);
        if (child) {
            children.push_back(std::move(child));
        }
    }
    return children;
}

class Walker
{
public:
    explicit Walker(QDeadlineTimer deadline) : m_deadline(deadline) {}

    bool exhausted() const { return m_budget <= 0 || m_deadline.hasExpired(); }

    // Depth first through showing nodes; wide containers (long lists, tables) are not entered.
    Ref focusedBelow(AtspiAccessible* node)
    {
        if (exhausted()) {
            return {};
        }
        --m_budget;
        const States states = statesOf(node);
        if (states.defunct || !states.showing) {
            return {};
        }
        if (states.focused) {
            return Ref(static_cast<AtspiAccessible*>(g_object_ref(node)));
        }
        GError* error = nullptr;
        const int count = atspi_accessible_get_child_count(node, &error);
        clear(error);
        if (count <= 0 || count > widestNodeWalked) {
            return {};
        }
        for (Ref& child : childrenOf(node, count)) {
            if (Ref found = focusedBelow(child.get())) {
                return found;
            }
        }
        return {};
    }

    // The focused element in the application's active window, else in any of its windows.
    Ref focusedIn(AtspiAccessible* application, bool activeWindowOnly)
    {
        std::vector<Ref> windows = childrenOf(application, 64);
        for (Ref& window : windows) {
            if (exhausted()) {
                return {};
            }
            --m_budget;
            if (statesOf(window.get()).active) {
                if (Ref found = focusedBelow(window.get())) {
                    return found;
                }
            }
        }
        if (activeWindowOnly) {
            return {};
        }
        for (Ref& window : windows) {
            if (Ref found = focusedBelow(window.get())) {
                return found;
            }
        }
        return {};
    }

private:
    QDeadlineTimer m_deadline;
    int m_budget = nodeBudget;
};

struct Application
{
    Ref object;
    std::optional<qint64> processId;
};

std::vector<Application> applications()
{
    std::vector<Application> result;
    Ref desktop(atspi_get_desktop(0));
    if (!desktop) {
        return result;
    }
    const qint64 ownProcess = QCoreApplication::applicationPid();
    for (Ref& app : childrenOf(desktop.get(), 256)) {
        GError* error = nullptr;
        const guint pid = atspi_accessible_get_process_id(app.get(), &error);
        const bool known = !error;
        clear(error);
        // Asking ourselves would wait on our own blocked event loop until the call times out.
        if (known && qint64(pid) == ownProcess) {
            continue;
        }
        result.push_back({std::move(app), known ? std::optional<qint64>(pid) : std::nullopt});
    }
    return result;
}

class AtspiElement : public AccessibleElement
{
public:
    explicit AtspiElement(Ref object) : m_object(std::move(object)) {}
    ~AtspiElement() override
    {
        if (m_text) {
            g_object_unref(m_text);
        }
    }

    AtspiAccessible* object() const { return m_object.get(); }

    bool isSecure() override
    {
        GError* error = nullptr;
        const AtspiRole role = atspi_accessible_get_role(m_object.get(), &error);
        const bool failed = error != nullptr;
        clear(error);
        return !failed && role == ATSPI_ROLE_PASSWORD_TEXT;
    }

    std::optional<QString> selectedText() override
    {
        if (!text()) {
            return std::nullopt;
        }
        GError* error = nullptr;
        const int count = atspi_text_get_n_selections(m_text, &error);
        if (error || count <= 0) {
            clear(error);
            return std::nullopt;
        }
        AtspiRange* range = atspi_text_get_selection(m_text, 0, &error);
        if (error || !range) {
            clear(error);
            return std::nullopt;
        }
        m_start = range->start_offset;
        m_end = range->end_offset;
        g_free(range);
        if (m_end <= m_start) {
            return std::nullopt;
        }
        gchar* raw = atspi_text_get_text(m_text, m_start, m_end, &error);
        clear(error);
        if (!raw) {
            return std::nullopt;
        }
        QString selected = QString::fromUtf8(raw);
        g_free(raw);
        return selected;
    }

    std::optional<QRectF> selectedTextScreenRect() override
    {
        if (!text() || m_end <= m_start) {
            return std::nullopt;
        }
        GError* error = nullptr;
        AtspiRect* rect =
            atspi_text_get_range_extents(m_text, m_start, m_end, ATSPI_COORD_TYPE_SCREEN, &error);
        clear(error);
        if (!rect) {
            return std::nullopt;
        }
        const QRectF bounds(rect->x, rect->y, rect->width, rect->height);
        g_free(rect);
        // Toolkits that cannot tell answer with an empty or negative box.
        if (bounds.width() <= 0 || bounds.height() <= 0) {
            return std::nullopt;
        }
        return bounds;
    }

private:
    AtspiText* text()
    {
        if (!m_text && !m_textLooked) {
            m_textLooked = true;
            m_text = atspi_accessible_get_text_iface(m_object.get());
        }
        return m_text;
    }

    Ref m_object;
    AtspiText* m_text = nullptr;
    bool m_textLooked = false;
    int m_start = 0;
    int m_end = 0;
};

} // namespace

AtspiAccessibilityProbe::AtspiAccessibilityProbe(std::function<std::optional<qint64>()> focusedProcess)
    : m_focusedProcess(std::move(focusedProcess))
{}

bool AtspiAccessibilityProbe::isAvailable()
{
    static const bool available = [] {
        if (!SessionBus::isConfigured()) {
            return false;
        }
        // 2 means no accessibility bus; any later libatspi call would then abort the process.
        return atspi_init() != 2;
    }();
    return available;
}

std::vector<std::unique_ptr<AccessibleElement>>
AtspiAccessibilityProbe::focusedElements(std::optional<qint64> preferredProcess,
                                         std::optional<std::chrono::milliseconds> timeout)
{
    std::vector<std::unique_ptr<AccessibleElement>> elements;
    if (!isAvailable()) {
        return elements;
    }
    const auto callTimeout = timeout.value_or(defaultCallTimeout);
    // The startup allowance would otherwise let a freshly started application stall us for 15 s.
    atspi_set_timeout(int(callTimeout.count()), int(callTimeout.count()));
    Walker walker(QDeadlineTimer(callTimeout * 3));

    const std::vector<Application> apps = applications();
    auto add = [&elements](Ref candidate) {
        if (!candidate) {
            return;
        }
        // libatspi hands out one object per remote element, so identity is pointer equality.
        for (const auto& existing : elements) {
            if (static_cast<AtspiElement*>(existing.get())->object() == candidate.get()) {
                return;
            }
        }
        elements.push_back(std::make_unique<AtspiElement>(std::move(candidate)));
    };
    auto focusedInProcess = [&](qint64 pid) -> Ref {
        for (const Application& app : apps) {
            if (app.processId == pid) {
                return walker.focusedIn(app.object.get(), false);
            }
        }
        return {};
    };

    if (preferredProcess) {
        add(focusedInProcess(*preferredProcess));
    }
    for (const Application& app : apps) {
        if (walker.exhausted()) {
            break;
        }
        if (Ref found = walker.focusedIn(app.object.get(), true)) {
            add(std::move(found));
            break;
        }
    }
    if (const auto focused = m_focusedProcess ? m_focusedProcess() : std::nullopt) {
        add(focusedInProcess(*focused));
    }
    return elements;
}

bool AtspiAccessibilityProbe::focusedApplicationIsAccessible()
{
    const std::optional<qint64> focused = m_focusedProcess ? m_focusedProcess() : std::nullopt;
    if (!focused || !isAvailable()) {
        return false;
    }
    atspi_set_timeout(int(defaultCallTimeout.count()), int(defaultCallTimeout.count()));
    const std::vector<Application> apps = applications();
    return std::any_of(apps.cbegin(), apps.cend(),
                       [&](const Application& app) { return app.processId == focused; });
}

} // namespace velnora
