// Capture against programs we did not write: GTK 3 (python3-gi), Tk (wish) and xterm, with the hot key
// held the way a person holds it (XTest key down, 1.5 s, key up) and large clipboards owned by GTK.
#include "CaptureDesktopSupport.h"
#include "CaptureTestData.h"
#include "capture/GlobalHotKey.h"
#include "capture/SelectionReadError.h"
#include "capture/SelectionReader.h"

#include <QMap>
#include <gtest/gtest.h>

namespace velnora {
namespace {

using namespace test;

const QString selected = QString::fromUtf8(CaptureTestData::selectedTrimmed);
const QString secureField = QStringLiteral("不会读取密码或安全输入框中的内容。");

BackgroundTool gtkSource(const QStringList& arguments)
{
    return BackgroundTool(QStringLiteral("/usr/bin/python3"),
                          QStringList{QStringLiteral(CAPTURE_SOURCES_DIR "/gtk_source.py")} + arguments);
}

QRectF windowOf(const QString& readyLine)
{
    const QStringList parts = readyLine.split(u' ');
    return parts.size() == 5 ? QRectF(parts[1].toInt(), parts[2].toInt(), parts[3].toInt(), parts[4].toInt())
                             : QRectF();
}

// The default hot key wired to a read, as the application wires it.
struct HotKeyRead
{
    SelectionReader reader;
    GlobalHotKey hotKey;
    int presses = 0;
    std::optional<SelectionResult> result;
    QString failure;

    HotKeyRead()
    {
        EXPECT_TRUE(hotKey.registerChoice(HotKeyChoice::choice(std::nullopt), [this] {
            ++presses;
            try {
                result = reader.readSelection();
            } catch (const SelectionReadError& error) {
                failure = error.description();
            }
        }));
    }

    // Ctrl+Alt+E down, held, up, through XTest; then what the read gave (its text or its message).
    QString pressAndHold(int holdMs = 1500)
    {
        presses = 0;
        result.reset();
        failure.clear();
        BackgroundTool keys(
            QStringLiteral("xdotool"),
            {"keydown", "ctrl+alt+e", "sleep", QString::number(holdMs / 1000.0), "keyup", "ctrl+alt+e"});
        EXPECT_TRUE(keys.finished(holdMs + 5000));
        spinUntil([this] { return result || !failure.isEmpty(); }, 5000);
        spinFor(200); // a repeat of the held key would fire by now
        return result ? result->text : failure;
    }
};

std::optional<QByteArray> clipboard(const QByteArray& target)
{
    return runTool(QStringLiteral("xclip"),
                   {"-o", "-selection", "clipboard", "-t", QString::fromLatin1(target)});
}

// Every format the clipboard's owner gives, as it gives it.
QMap<QByteArray, QByteArray> clipboardContent()
{
    QMap<QByteArray, QByteArray> content;
    for (const QByteArray& target : clipboard("TARGETS").value_or("").split('\n')) {
        if (target.isEmpty() || target == "TARGETS" || target == "MULTIPLE" || target == "TIMESTAMP" ||
            target == "SAVE_TARGETS") {
            continue;
        }
        if (const auto data = clipboard(target)) {
            content.insert(target, *data);
        }
    }
    return content;
}

TEST(CaptureApplicationsTest, HeldHotKeyReadsAGtkEntryWithItsBoundsAndRefusesAGtkPasswordEntry)
{
    const struct
    {
        const char* mode;
        QString outcome;
        bool anchored;
    } cases[] = {
        {"entry", selected, true},
        {"password", secureField, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.mode);
        HotKeyRead read;
        BackgroundTool gtk = gtkSource({c.mode});
        const QRectF window = windowOf(gtk.readyLine());
        ASSERT_TRUE(window.isValid());
        EXPECT_EQ(read.pressAndHold(), c.outcome);
        EXPECT_EQ(read.presses, 1) << "the held key fired again";
        if (c.anchored) {
            ASSERT_TRUE(read.result && read.result->anchorRect) << "the text did not come through AT-SPI";
            EXPECT_TRUE(window.contains(read.result->anchorRect->center()))
                << read.result->anchorRect->x() << ',' << read.result->anchorRect->y();
        }
    }
}

TEST(CaptureApplicationsTest, HeldHotKeyCopiesFromATkEntryWithoutTypingIntoItAndRestoresTheClipboard)
{
    BackgroundTool earlier(QStringLiteral("xclip"), {"-quiet", "-selection", "clipboard"},
                           CaptureTestData::earlierText);
    ASSERT_TRUE(spinUntil([] { return clipboard("UTF8_STRING") == CaptureTestData::earlierText; }, 5000));
    HotKeyRead read; // after the first read, it serves the restored clipboard
    // The longer hold outlasts both copy attempts' own waits for the keys.
    for (const int holdMs : {1500, 2500}) {
        SCOPED_TRACE(holdMs);
        BackgroundTool tk(QStringLiteral("wish"), {QStringLiteral(CAPTURE_SOURCES_DIR "/tk_source.tcl")});
        ASSERT_TRUE(tk.readyLine().startsWith(QStringLiteral("ready")));

        EXPECT_EQ(read.pressAndHold(holdMs), selected);
        EXPECT_EQ(tk.printedLines(), QStringList()) << "the entry's text changed";
        EXPECT_EQ(clipboard("UTF8_STRING"), QByteArray(CaptureTestData::earlierText));
    }
}

// xterm copies on Ctrl+Shift+C once bound so, as terminals do; Ctrl+C would interrupt its shell instead.
TEST(CaptureApplicationsTest, HeldHotKeyCopiesFromXtermWithItsCopyKey)
{
    BackgroundTool xterm(QStringLiteral("xterm"),
                         {"-geometry", "60x4+200+150", "-fn", "fixed", "-xrm",
                          "XTerm*VT100.translations: #override Shift Ctrl <Key>C: copy-selection(CLIPBOARD)",
                          "-e", "sh", "-c", "printf 'terminal words'; exec sleep 600"});
    const QByteArray window =
        runTool(QStringLiteral("xdotool"), {"search", "--sync", "--pid", QString::number(xterm.processId())})
            .value_or("")
            .trimmed();
    ASSERT_FALSE(window.isEmpty());
    spinFor(300); // the shell's text drawn
    // A double click selects the first word; then another client takes PRIMARY, as selecting elsewhere would.
    ASSERT_TRUE(
        runTool(QStringLiteral("xdotool"),
                {"windowfocus", "--sync", QString::fromLatin1(window), "mousemove", "--window",
                 QString::fromLatin1(window), "12", "8", "click", "--repeat", "2", "--delay", "80", "1"}));
    ASSERT_TRUE(spinUntil(
        [] {
            return runTool(QStringLiteral("xclip"), {"-o", "-selection", "primary"}) == "terminal";
        },
        3000));
    BackgroundTool blank(QStringLiteral("xclip"), {"-quiet", "-selection", "primary"}, " ");
    ASSERT_TRUE(spinUntil(
        [] {
            return runTool(QStringLiteral("xclip"), {"-o", "-selection", "primary"}) == " ";
        },
        3000));

    HotKeyRead read;
    EXPECT_EQ(read.pressAndHold(300), QStringLiteral("terminal"));
    EXPECT_FALSE(xterm.finished(300)) << "the shell was interrupted";
}

// GTK sends formats this large in INCR chunks, and so do we when serving them back.
TEST(CaptureApplicationsTest, LargeGtkClipboardComesBackByteForByteAfterACopy)
{
    for (const QStringList& owner :
         {QStringList{"clipboard-text", "409600"}, QStringList{"clipboard-image"}}) {
        SCOPED_TRACE(owner.join(u' ').toStdString());
        BackgroundTool gtk = gtkSource(owner);
        ASSERT_FALSE(gtk.readyLine().isEmpty());
        const QMap<QByteArray, QByteArray> before = clipboardContent();
        ASSERT_GE(before.size(), owner.size() == 2 ? 2 : 5);
        ASSERT_GE(before.first().size(), 400 * 1024);

        HotKeyRead read;
        BackgroundTool tk(QStringLiteral("wish"), {QStringLiteral(CAPTURE_SOURCES_DIR "/tk_source.tcl")});
        ASSERT_TRUE(tk.readyLine().startsWith(QStringLiteral("ready")));
        const auto watcher = CapturePlatform::create().clipboard;
        const std::uint64_t changesBefore = watcher->clipboardChangeCount();
        EXPECT_EQ(read.pressAndHold(300), selected);
        // Tk's copy, then our restore: the text came through the clipboard, not PRIMARY.
        EXPECT_EQ(watcher->clipboardChangeCount(), changesBefore + 2);
        EXPECT_TRUE(clipboardContent() == before) << "a format changed or went missing";
    }
}

TEST(CaptureApplicationsTest, ClipboardThatCannotBeSavedWholeIsLeftAloneAndTheReadSaysWhy)
{
    TestClient copier({"copy", "--stall"});
    ASSERT_TRUE(copier.readyLine().startsWith(QStringLiteral("ready")));
    SelectionReader reader;
    QString outcome;
    try {
        outcome = reader.readSelection().text;
    } catch (const SelectionReadError& error) {
        outcome = error.description();
    }
    EXPECT_EQ(outcome, SelectionReadError(SelectionReadError::Case::clipboardNotSaved).description());
    // No Ctrl+C reached the client, or it would hold the copied text now.
    EXPECT_EQ(clipboard("UTF8_STRING"), QByteArray(CaptureTestData::earlierText));
}

} // namespace
} // namespace velnora
