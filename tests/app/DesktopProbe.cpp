#include "DesktopProbe.h"

#include <atspi/atspi.h>
#include <cstdlib>
#include <functional>
#include <xcb/xcb.h>

namespace velnora::test::DesktopProbe {

namespace {

xcb_atom_t atom(xcb_connection_t* c, const char* name)
{
    auto* reply = xcb_intern_atom_reply(c, xcb_intern_atom(c, 0, uint16_t(strlen(name)), name), nullptr);
    const xcb_atom_t value = reply ? reply->atom : XCB_ATOM_NONE;
    std::free(reply);
    return value;
}

} // namespace

std::vector<Window> windowsOf(qint64 pid)
{
    std::vector<Window> found;
    xcb_connection_t* c = xcb_connect(nullptr, nullptr);
    if (xcb_connection_has_error(c)) {
        xcb_disconnect(c);
        return found;
    }
    const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(c)).data->root;
    const xcb_atom_t pidAtom = atom(c, "_NET_WM_PID");
    std::function<void(xcb_window_t, int)> walk = [&](xcb_window_t parent, int depth) {
        auto* tree = xcb_query_tree_reply(c, xcb_query_tree(c, parent), nullptr);
        if (!tree) {
            return;
        }
        const xcb_window_t* children = xcb_query_tree_children(tree);
        for (int i = 0; i < xcb_query_tree_children_length(tree); ++i) {
            const xcb_window_t window = children[i];
            auto* property = xcb_get_property_reply(
                c, xcb_get_property(c, 0, window, pidAtom, XCB_ATOM_CARDINAL, 0, 1), nullptr);
            if (property && xcb_get_property_value_length(property) == 4 &&
                *static_cast<const quint32*>(xcb_get_property_value(property)) == quint32(pid)) {
                Window entry;
                entry.id = window;
                entry.topLevel = parent == root;
                auto* attributes =
                    xcb_get_window_attributes_reply(c, xcb_get_window_attributes(c, window), nullptr);
                entry.viewable = attributes && attributes->map_state == XCB_MAP_STATE_VIEWABLE;
                std::free(attributes);
                auto* geometry = xcb_get_geometry_reply(c, xcb_get_geometry(c, window), nullptr);
                if (geometry) {
                    entry.geometry = QRect(geometry->x, geometry->y, geometry->width, geometry->height);
                }
                std::free(geometry);
                found.push_back(entry);
            }
            std::free(property);
            if (depth < 4) {
                walk(window, depth + 1);
            }
        }
        std::free(tree);
    };
    walk(root, 0);
    xcb_disconnect(c);
    return found;
}

std::optional<Window> embeddedTrayIcon(qint64 pid)
{
    for (const Window& window : windowsOf(pid)) {
        if (!window.topLevel && window.viewable) {
            return window;
        }
    }
    return std::nullopt;
}

std::optional<Window> shownWindow(qint64 pid, int minimumWidth, int minimumHeight)
{
    for (const Window& window : windowsOf(pid)) {
        if (window.topLevel && window.viewable && window.geometry.width() >= minimumWidth &&
            window.geometry.height() >= minimumHeight) {
            return window;
        }
    }
    return std::nullopt;
}

std::optional<QString> accessibleContent(qint64 pid)
{
    static const bool initialised = [] {
        atspi_init();
        return true;
    }();
    (void)initialised;
    AtspiAccessible* desktop = atspi_get_desktop(0);
    if (!desktop) {
        return std::nullopt;
    }
    std::optional<QString> text;
    const int applications = atspi_accessible_get_child_count(desktop, nullptr);
    for (int i = 0; i < applications && !text; ++i) {
        AtspiAccessible* application = atspi_accessible_get_child_at_index(desktop, i, nullptr);
        if (!application) {
            continue;
        }
        if (qint64(atspi_accessible_get_process_id(application, nullptr)) == pid) {
            QString joined;
            std::function<void(AtspiAccessible*, int)> walk = [&](AtspiAccessible* node, int depth) {
                if (gchar* name = atspi_accessible_get_name(node, nullptr)) {
                    if (*name) {
                        joined += QString::fromUtf8(name) + u'\n';
                    }
                    g_free(name);
                }
                if (AtspiText* textInterface = atspi_accessible_get_text_iface(node)) {
                    gchar* value = atspi_text_get_text(textInterface, 0, -1, nullptr);
                    if (value) {
                        joined += QString::fromUtf8(value) + u'\n';
                        g_free(value);
                    }
                    g_object_unref(textInterface);
                }
                if (depth > 30) {
                    return;
                }
                const int count = atspi_accessible_get_child_count(node, nullptr);
                for (int k = 0; k < count && k < 500; ++k) {
                    if (AtspiAccessible* child = atspi_accessible_get_child_at_index(node, k, nullptr)) {
                        walk(child, depth + 1);
                        g_object_unref(child);
                    }
                }
            };
            walk(application, 0);
            text = joined;
        }
        g_object_unref(application);
    }
    g_object_unref(desktop);
    return text;
}

} // namespace velnora::test::DesktopProbe
