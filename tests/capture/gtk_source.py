#!/usr/bin/python3
# A GTK 3 program as a source of selections for the capture tests. Prints "ready X Y W H" (its window,
# root coordinates) once mapped and focused, then runs until killed.
#   entry            a focused Gtk.Entry with a selection in the middle of its text
#   password         a focused Gtk.Entry with visibility off, all of it selected
#   clipboard-text N owns CLIPBOARD with N bytes of text (Gtk.Clipboard.set_text)
#   clipboard-image  owns CLIPBOARD with a 1 MB image (Gtk.Clipboard.set_image)
import random
import sys

import gi

gi.require_version("Gdk", "3.0")
gi.require_version("Gtk", "3.0")
from gi.repository import Gdk, GdkPixbuf, GLib, Gtk  # noqa: E402

FIELD_TEXT = "前缀 解释这段文字 后缀"


def large_text(size):
    line = "剪贴板里的一大段文字 large clipboard text 0123456789\n"
    return (line * (size // len(line.encode()) + 1)).encode()[:size].decode(errors="ignore")


def large_image():
    # Noise does not compress: about 1 MB in every format.
    width, height = 600, 600
    pixels = random.Random(7).randbytes(width * height * 3)
    return GdkPixbuf.Pixbuf.new_from_bytes(GLib.Bytes.new(pixels), GdkPixbuf.Colorspace.RGB, False, 8, width,
                                           height, width * 3)


def main():
    mode = sys.argv[1]
    window = Gtk.Window(title="gtk source")
    window.move(200, 150)
    window.set_default_size(600, 60)
    entry = Gtk.Entry()
    window.add(entry)
    if mode == "password":
        entry.set_visibility(False)
        entry.set_text("hunter2-secret")
    else:
        entry.set_text(FIELD_TEXT)
    clipboard = Gtk.Clipboard.get(Gdk.SELECTION_CLIPBOARD)
    if mode == "clipboard-text":
        clipboard.set_text(large_text(int(sys.argv[2])), -1)
    elif mode == "clipboard-image":
        clipboard.set_image(large_image())

    def announce():
        # Without a window manager the program takes the focus itself, once.
        window.get_window().focus(Gdk.CURRENT_TIME)
        entry.grab_focus()
        if mode == "password":
            entry.select_region(0, -1)
        elif mode == "entry":
            entry.select_region(2, 10)
        else:
            entry.select_region(0, 0)  # a clipboard owner with no selection, so PRIMARY stays free
        x, y = window.get_window().get_origin()[1:]
        print("ready", x, y, window.get_allocated_width(), window.get_allocated_height(), flush=True)
        return False

    window.connect("map-event", lambda *_: GLib.timeout_add(100, announce) and False)
    window.connect("destroy", Gtk.main_quit)
    window.show_all()
    Gtk.main()


main()
