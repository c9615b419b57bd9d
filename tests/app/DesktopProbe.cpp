#include "DesktopProbe.h"

#include <QSize>
#include <atspi/atspi.h>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <xcb/xcb.h>

namespace velnora::test::DesktopProbe {

namespace {

// The first viewable window whose _NET_WM_PID is pid, a child of the root (no window manager runs in the
// session) or not, and at least this large.
std::optional<Window> findWindow(qint64 pid, bool topLevel, QSize minimum)
{
    xcb_connection_t* c = xcb_connect(nullptr, nullptr);
    const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(c)).data->root;
    auto* atomReply = xcb_intern_atom_reply(c, xcb_intern_atom(c, 0, 11, "_NET_WM_PID"), nullptr);
    const xcb_atom_t pidAtom = atomReply ? atomReply->atom : xcb_atom_t(XCB_ATOM_NONE);
    std::free(atomReply);
    std::optional<Window> found;
    std::function<void(xcb_window_t, int)> walk = [&](xcb_window_t parent, int depth) {
        auto* tree = xcb_query_tree_reply(c, xcb_query_tree(c, parent), nullptr);
        for (int i = 0; tree && !found && i < xcb_query_tree_children_length(tree); ++i) {
            const xcb_window_t window = xcb_query_tree_children(tree)[i];
            auto* property = xcb_get_property_reply(
                c, xcb_get_property(c, 0, window, pidAtom, XCB_ATOM_CARDINAL, 0, 1), nullptr);
            auto* attributes =
                xcb_get_window_attributes_reply(c, xcb_get_window_attributes(c, window), nullptr);
            auto* geometry = xcb_get_geometry_reply(c, xcb_get_geometry(c, window), nullptr);
            if (property && xcb_get_property_value_length(property) == 4 &&
                *static_cast<const quint32*>(xcb_get_property_value(property)) == quint32(pid) &&
                (parent == root) == topLevel && attributes &&
                attributes->map_state == XCB_MAP_STATE_VIEWABLE && geometry &&
                geometry->width >= minimum.width() && geometry->height >= minimum.height()) {
                found = window;
            }
            std::free(property);
            std::free(attributes);
            std::free(geometry);
            if (depth < 4) {
                walk(window, depth + 1);
            }
        }
        std::free(tree);
    };
    if (!xcb_connection_has_error(c)) {
        walk(root, 0);
    }
    xcb_disconnect(c);
    return found;
}

} // namespace

std::optional<Window> embeddedTrayIcon(qint64 pid)
{
    return findWindow(pid, false, QSize(0, 0));
}

std::optional<Window> shownWindow(qint64 pid, int minimumWidth, int minimumHeight)
{
    return findWindow(pid, true, QSize(minimumWidth, minimumHeight));
}

bool selectionHasOwner(const char* selection)
{
    xcb_connection_t* c = xcb_connect(nullptr, nullptr);
    bool owned = false;
    if (!xcb_connection_has_error(c)) {
        auto* atom = xcb_intern_atom_reply(
            c, xcb_intern_atom(c, 0, uint16_t(std::strlen(selection)), selection), nullptr);
        auto* owner = atom ? xcb_get_selection_owner_reply(c, xcb_get_selection_owner(c, atom->atom), nullptr)
                           : nullptr;
        owned = owner && owner->owner != XCB_NONE;
        std::free(owner);
        std::free(atom);
    }
    xcb_disconnect(c);
    return owned;
}

std::optional<QString> accessibleContent(qint64 pid)
{
    atspi_init(); // once per process; later calls only say so
    AtspiAccessible* desktop = atspi_get_desktop(0);
    std::optional<QString> text;
    std::function<void(AtspiAccessible*, int)> walk = [&](AtspiAccessible* node, int depth) {
        gchar* name = atspi_accessible_get_name(node, nullptr);
        AtspiText* textInterface = atspi_accessible_get_text_iface(node);
        gchar* value = textInterface ? atspi_text_get_text(textInterface, 0, -1, nullptr) : nullptr;
        for (gchar* part : {name, value}) {
            if (part && *part) {
                *text += QString::fromUtf8(part) + u'\n';
            }
            g_free(part);
        }
        g_clear_object(&textInterface);
        const int count = depth > 30 ? 0 : atspi_accessible_get_child_count(node, nullptr);
        for (int k = 0; k < count && k < 500; ++k) {
            if (AtspiAccessible* child = atspi_accessible_get_child_at_index(node, k, nullptr)) {
                walk(child, depth + 1);
                g_object_unref(child);
            }
        }
    };
    const int applications = desktop ? atspi_accessible_get_child_count(desktop, nullptr) : 0;
    for (int i = 0; i < applications && !text; ++i) {
        if (AtspiAccessible* application = atspi_accessible_get_child_at_index(desktop, i, nullptr)) {
            if (qint64(atspi_accessible_get_process_id(application, nullptr)) == pid) {
                text = QString();
                walk(application, 0);
            }
            g_object_unref(application);
        }
    }
    g_clear_object(&desktop);
    return text;
}

} // namespace velnora::test::DesktopProbe
