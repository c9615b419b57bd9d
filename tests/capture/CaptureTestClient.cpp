// A separate X client for the capture tests. Modes:
//   fields [--focus text|password]   Qt window: a text field with a selection and a password field.
//                                    Prints "ready X Y W H" (window frame, logical) once focused.
//   copy [--class NAME] [--replace]  Plain X window that takes the keyboard focus and answers Ctrl+C
//                                    (or Ctrl+Shift+C) by owning CLIPBOARD. --replace: right after
//                                    serving the copied text, a second connection takes CLIPBOARD.
//   offer                            Owns CLIPBOARD with text/plain, text/html and image/png.
//   grab                             Holds Ctrl+Alt+E on the root window.
// Each mode prints one line when it is set up, then runs until killed.
#include "CaptureTestData.h"

#include <QApplication>
#include <QHBoxLayout>
#include <QLineEdit>
#include <QTimer>
#include <QWidget>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

#include <X11/keysym.h>
#include <poll.h>
#include <xcb/xcb.h>
#include <xcb/xcb_keysyms.h>

namespace {

using namespace velnora::test;

void say(const std::string& line)
{
    std::printf("%s\n", line.c_str());
    std::fflush(stdout);
}

int runFields(int argc, char** argv, bool focusPassword)
{
    QApplication app(argc, argv);
    QWidget window;
    window.setWindowTitle(QStringLiteral("capture fields"));
    auto* layout = new QHBoxLayout(&window);
    auto* text = new QLineEdit(QString::fromUtf8(CaptureTestData::fieldText), &window);
    auto* password = new QLineEdit(QStringLiteral("hunter2-secret"), &window);
    password->setEchoMode(QLineEdit::Password);
    layout->addWidget(text);
    layout->addWidget(password);
    window.setGeometry(200, 150, 700, 80);
    window.show();
    QLineEdit* target = focusPassword ? password : text;

    QTimer poll;
    bool announced = false;
    QObject::connect(&poll, &QTimer::timeout, [&] {
        if (QApplication::focusWidget() != target || !window.isActiveWindow()) {
            window.activateWindow();
            target->setFocus();
            return;
        }
        if (target == text) {
            text->setSelection(CaptureTestData::selectionStart, CaptureTestData::selectionLength);
        } else {
            password->selectAll();
        }
        if (!announced) {
            announced = true;
            const QRect frame = window.frameGeometry();
            say("ready " + std::to_string(frame.x()) + ' ' + std::to_string(frame.y()) + ' ' +
                std::to_string(frame.width()) + ' ' + std::to_string(frame.height()));
        }
    });
    poll.start(50);
    return app.exec();
}

struct Connection
{
    xcb_connection_t* c = nullptr;
    xcb_window_t root = 0;
    xcb_window_t window = 0;

    bool open()
    {
        c = xcb_connect(nullptr, nullptr);
        if (xcb_connection_has_error(c)) {
            return false;
        }
        root = xcb_setup_roots_iterator(xcb_get_setup(c)).data->root;
        return true;
    }
    xcb_atom_t atom(const char* name)
    {
        auto* r = xcb_intern_atom_reply(c, xcb_intern_atom(c, 0, uint16_t(std::strlen(name)), name), nullptr);
        const xcb_atom_t a = r ? r->atom : 0;
        std::free(r);
        return a;
    }
    void createWindow(bool visible, uint32_t eventMask)
    {
        window = xcb_generate_id(c);
        const uint32_t values[] = {eventMask};
        xcb_create_window(c, XCB_COPY_FROM_PARENT, window, root, 20, 20, visible ? 300 : 1, visible ? 200 : 1, 0,
                          XCB_WINDOW_CLASS_INPUT_OUTPUT, XCB_COPY_FROM_PARENT, XCB_CW_EVENT_MASK, values);
    }
    void sync() { std::free(xcb_get_input_focus_reply(c, xcb_get_input_focus(c), nullptr)); }
};

// Serves one selection's formats: target name -> (type name, bytes).
using Offer = std::map<std::string, std::pair<std::string, std::string>>;

void serve(Connection& x, const Offer& offer, const xcb_selection_request_event_t& request)
{
    xcb_selection_notify_event_t notify{};
    notify.response_type = XCB_SELECTION_NOTIFY;
    notify.time = request.time;
    notify.requestor = request.requestor;
    notify.selection = request.selection;
    notify.target = request.target;
    notify.property = XCB_NONE;
    if (request.target == x.atom("TARGETS")) {
        std::vector<xcb_atom_t> atoms{x.atom("TARGETS")};
        for (const auto& [name, value] : offer) {
            atoms.push_back(x.atom(name.c_str()));
        }
        xcb_change_property(x.c, XCB_PROP_MODE_REPLACE, request.requestor, request.property, XCB_ATOM_ATOM, 32,
                            uint32_t(atoms.size()), atoms.data());
        notify.property = request.property;
    } else {
        for (const auto& [name, value] : offer) {
            if (x.atom(name.c_str()) == request.target) {
                xcb_change_property(x.c, XCB_PROP_MODE_REPLACE, request.requestor, request.property,
                                    x.atom(value.first.c_str()), 8, uint32_t(value.second.size()),
                                    value.second.data());
                notify.property = request.property;
            }
        }
    }
    char wire[32] = {};
    std::memcpy(wire, &notify, sizeof notify);
    xcb_send_event(x.c, 0, request.requestor, 0, wire);
    xcb_flush(x.c);
}

Offer textOffer(const std::string& text)
{
    return {{"UTF8_STRING", {"UTF8_STRING", text}}, {"text/plain;charset=utf-8", {"text/plain;charset=utf-8", text}}};
}

// Serves the second connection's offer until killed.
[[noreturn]] void serveForever(Connection& x, const Offer& offer)
{
    while (xcb_generic_event_t* event = xcb_wait_for_event(x.c)) {
        if ((event->response_type & 0x7f) == XCB_SELECTION_REQUEST) {
            serve(x, offer, *reinterpret_cast<xcb_selection_request_event_t*>(event));
        }
        std::free(event);
    }
    std::exit(0);
}

int runOffer()
{
    Connection x;
    if (!x.open()) {
        return 1;
    }
    x.createWindow(false, 0);
    Offer offer = textOffer(CaptureTestData::earlierText);
    offer["text/html"] = {"text/html", CaptureTestData::earlierHtml};
    offer["image/png"] = {"image/png", CaptureTestData::earlierImage()};
    xcb_set_selection_owner(x.c, x.window, x.atom("CLIPBOARD"), XCB_CURRENT_TIME);
    x.sync();
    say("ready");
    serveForever(x, offer);
}

int runCopy(const std::string& wmClass, bool replace)
{
    Connection x;
    if (!x.open()) {
        return 1;
    }
    x.createWindow(true, XCB_EVENT_MASK_KEY_PRESS | XCB_EVENT_MASK_FOCUS_CHANGE);
    const std::string classValue = wmClass + '\0' + wmClass + '\0';
    xcb_change_property(x.c, XCB_PROP_MODE_REPLACE, x.window, XCB_ATOM_WM_CLASS, XCB_ATOM_STRING, 8,
                        uint32_t(classValue.size()), classValue.data());
    xcb_map_window(x.c, x.window);
    x.sync();
    // Without a window manager the focus is ours to set; retry until the server agrees.
    for (int i = 0; i < 100; ++i) {
        xcb_set_input_focus(x.c, XCB_INPUT_FOCUS_POINTER_ROOT, x.window, XCB_CURRENT_TIME);
        auto* focus = xcb_get_input_focus_reply(x.c, xcb_get_input_focus(x.c), nullptr);
        const bool ours = focus && focus->focus == x.window;
        std::free(focus);
        if (ours) {
            break;
        }
        poll(nullptr, 0, 20);
    }
    xcb_key_symbols_t* symbols = xcb_key_symbols_alloc(x.c);
    xcb_keycode_t* codes = xcb_key_symbols_get_keycode(symbols, XK_c);
    const xcb_keycode_t letterC = codes ? codes[0] : 0;
    std::free(codes);
    const xcb_atom_t clipboard = x.atom("CLIPBOARD");
    say("ready");

    Offer offer;
    Connection third;
    const Offer newer = textOffer(CaptureTestData::newerText);
    for (;;) {
        pollfd fds[2] = {{xcb_get_file_descriptor(x.c), POLLIN, 0},
                         {third.c ? xcb_get_file_descriptor(third.c) : -1, POLLIN, 0}};
        poll(fds, third.c ? 2 : 1, -1);
        while (third.c && (fds[1].revents & POLLIN)) {
            xcb_generic_event_t* event = xcb_poll_for_event(third.c);
            if (!event) {
                break;
            }
            if ((event->response_type & 0x7f) == XCB_SELECTION_REQUEST) {
                serve(third, newer, *reinterpret_cast<xcb_selection_request_event_t*>(event));
            }
            std::free(event);
        }
        if (xcb_connection_has_error(x.c)) {
            return 1;
        }
        while (xcb_generic_event_t* event = xcb_poll_for_event(x.c)) {
            const uint8_t type = event->response_type & 0x7f;
            if (type == XCB_KEY_PRESS) {
                const auto* press = reinterpret_cast<xcb_key_press_event_t*>(event);
                if (press->detail == letterC && (press->state & XCB_MOD_MASK_CONTROL)) {
                    const bool shifted = press->state & XCB_MOD_MASK_SHIFT;
                    offer = textOffer(shifted ? CaptureTestData::copiedWithShift : CaptureTestData::copiedPlain);
                    xcb_set_selection_owner(x.c, x.window, clipboard, press->time);
                    xcb_flush(x.c);
                }
            } else if (type == XCB_SELECTION_REQUEST) {
                const auto request = *reinterpret_cast<xcb_selection_request_event_t*>(event);
                if (replace && !third.c && request.target == x.atom("UTF8_STRING")) {
                    // A third client takes CLIPBOARD before the reader learns that its conversion
                    // finished, so the reader must see the newer owner.
                    if (!third.open()) {
                        return 1;
                    }
                    third.createWindow(false, 0);
                    xcb_set_selection_owner(third.c, third.window, clipboard, XCB_CURRENT_TIME);
                    third.sync();
                }
                serve(x, offer, request);
            }
            std::free(event);
        }
    }
}

int runGrab()
{
    Connection x;
    if (!x.open()) {
        return 1;
    }
    xcb_key_symbols_t* symbols = xcb_key_symbols_alloc(x.c);
    xcb_keycode_t* codes = xcb_key_symbols_get_keycode(symbols, XK_e);
    const xcb_keycode_t letterE = codes ? codes[0] : 0;
    std::free(codes);
    xcb_generic_error_t* error = xcb_request_check(
        x.c, xcb_grab_key_checked(x.c, 1, x.root, XCB_MOD_MASK_CONTROL | XCB_MOD_MASK_1, letterE,
                                  XCB_GRAB_MODE_ASYNC, XCB_GRAB_MODE_ASYNC));
    say(error ? "taken" : "grabbed");
    std::free(error);
    while (xcb_generic_event_t* event = xcb_wait_for_event(x.c)) {
        std::free(event);
    }
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    const std::string mode = argc > 1 ? argv[1] : "";
    auto option = [&](const char* name) -> std::string {
        for (int i = 2; i + 1 < argc; ++i) {
            if (std::strcmp(argv[i], name) == 0) {
                return argv[i + 1];
            }
        }
        return {};
    };
    auto flag = [&](const char* name) {
        for (int i = 2; i < argc; ++i) {
            if (std::strcmp(argv[i], name) == 0) {
                return true;
            }
        }
        return false;
    };
    if (mode == "fields") {
        return runFields(argc, argv, option("--focus") == "password");
    }
    if (mode == "copy") {
        const std::string wmClass = option("--class");
        return runCopy(wmClass.empty() ? "capture-copy" : wmClass, flag("--replace"));
    }
    if (mode == "offer") {
        return runOffer();
    }
    if (mode == "grab") {
        return runGrab();
    }
    std::fprintf(stderr, "usage: %s fields|copy|offer|grab\n", argv[0]);
    return 2;
}
