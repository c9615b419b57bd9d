// Capture through the hot key held the way a person holds it (XTest key down, 1.5 s, key up): focused fields
// of Qt and of programs we did not write, GTK 3 (python3-gi), Tk (wish) and xterm, and large clipboards
// owned by GTK.
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

// The default hot key wired to a read, as the application wires it.
struct HotKeyRead
{
    SelectionReader reader;
    GlobalHotKey hotKey;
    int presses = 0;
    std::optional<SelectionResult> result; // the last read, when it gave text
    QString outcome;                       // its text or its message

    HotKeyRead()
    {
        EXPECT_TRUE(hotKey.registerChoice(HotKeyChoice::choice(std::nullopt), [this] {
            ++presses;
            outcome = readOutcome([this] { return *(result = reader.readSelection()); });
        }));
    }

    // Ctrl+Alt+E down, held, up, through XTest; then what the read gave (its text or its message).
    QString pressAndHold(int holdMs = 1500)
    {
        presses = 0;
        result.reset();
        outcome.clear();
        BackgroundTool keys("xdotool", {"keydown", "ctrl+alt+e", "sleep", QString::number(holdMs / 1000.0),
                                        "keyup", "ctrl+alt+e"});
        EXPECT_TRUE(keys.finished(holdMs + 5000));
        waitUntil([this] { return !outcome.isEmpty(); }, 5000);
        spinFor(200); // a repeat of the held key would fire by now
        return outcome;
    }
};

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

// Qt registers with the accessibility bus a moment after its window shows.
bool focusedElementAppears(qint64 process, bool secure)
{
    const auto probe = CapturePlatform::create().accessibility;
    const auto appeared = [&] {
        for (const auto& element : probe->focusedElements(process, std::chrono::milliseconds(250))) {
            if (element->isSecure() == secure) {
                return true;
            }
        }
        return false;
    };
    return probe && waitUntil(appeared, 10000);
}

// A focused field of Qt or GTK gives its selection, with bounds inside its window, to the held hot key and
// to a peek; a password field ends the read although PRIMARY holds what a fallback would return.
TEST(CaptureApplicationsTest, FocusedQtAndGtkFieldsGiveTheirTextAndBoundsAndPasswordFieldsStopTheRead)
{
    const QString gtk = QStringLiteral(CAPTURE_SOURCES_DIR "/gtk_source.py");
    const struct
    {
        QString program;
        QStringList arguments;
        bool secure;
    } cases[] = {
        {CAPTURE_TEST_CLIENT, {"fields", "--accessible"}, false},
        {CAPTURE_TEST_CLIENT, {"fields", "--focus", "password", "--accessible"}, true},
        {"/usr/bin/python3", {gtk, "entry"}, false},
        {"/usr/bin/python3", {gtk, "password"}, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.arguments.join(u' ').toStdString());
        const auto primary = c.secure ? ownSelection("primary", "primary text") : nullptr;
        HotKeyRead read;
        BackgroundTool source(c.program, c.arguments);
        const QRectF window = windowOf(source.readyLine());
        ASSERT_TRUE(window.isValid());
        ASSERT_TRUE(focusedElementAppears(source.processId(), c.secure));
        EXPECT_EQ(read.pressAndHold(), c.secure ? secureField : selected);
        EXPECT_EQ(read.presses, 1) << "the held key fired again";
        const auto peeked = read.reader.peekSelection(source.processId());
        ASSERT_EQ(peeked.has_value(), !c.secure);
        if (!c.secure) {
            ASSERT_TRUE(read.result && read.result->anchorRect) << "the text did not come through AT-SPI";
            EXPECT_TRUE(window.contains(read.result->anchorRect->center()))
                << read.result->anchorRect->x() << ',' << read.result->anchorRect->y();
            EXPECT_EQ(peeked->text, selected);
            EXPECT_EQ(peeked->anchorRect, read.result->anchorRect);
        }
    }
}

TEST(CaptureApplicationsTest, HeldHotKeyCopiesFromATkEntryWithoutTypingIntoItAndRestoresTheClipboard)
{
    const auto earlier = ownSelection("clipboard", CaptureTestData::earlierText);
    ASSERT_TRUE(earlier);
    HotKeyRead read; // after the first read, it serves the restored clipboard
    // The longer hold outlasts both copy attempts' own waits for the keys.
    for (const int holdMs : {1500, 2500}) {
        SCOPED_TRACE(holdMs);
        BackgroundTool tk = tkSource();
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
    // A double click selects the first word, once the shell has printed it; then another client takes
    // PRIMARY, as selecting elsewhere would.
    ASSERT_TRUE(waitUntil(
        [&] {
            runTool(QStringLiteral("xdotool"),
                    {"windowfocus", "--sync", QString::fromLatin1(window), "mousemove", "--window",
                     QString::fromLatin1(window), "12", "8", "click", "--repeat", "2", "--delay", "80", "1"});
            if (runTool("xclip", {"-o", "-selection", "primary"}) == "terminal") {
                return true;
            }
            spinFor(400); // past the multi-click time, so that the next double click starts afresh
            return false;
        },
        8000));
    const auto blank = ownSelection("primary", " ");
    ASSERT_TRUE(blank);

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
        BackgroundTool tk = tkSource();
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
    EXPECT_EQ(readOutcome([&] { return reader.readSelection(); }),
              SelectionReadError(SelectionReadError::Case::clipboardNotSaved).description());
    // No Ctrl+C reached the client, or it would hold the copied text now.
    EXPECT_EQ(clipboard("UTF8_STRING"), QByteArray(CaptureTestData::earlierText));
}

} // namespace
} // namespace velnora
