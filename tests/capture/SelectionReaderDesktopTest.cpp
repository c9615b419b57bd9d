// The reader against real X clients in the private session: Qt fields seen through AT-SPI, PRIMARY
// owned by xclip, and a client that answers Ctrl+C by taking CLIPBOARD.
#include "CaptureDesktopSupport.h"
#include "CaptureTestData.h"
#include "capture/SelectionReadError.h"
#include "capture/SelectionReader.h"

#include <gtest/gtest.h>

namespace velnora {
namespace {

using namespace std::chrono_literals;
using namespace test;

const QString xclip = QStringLiteral("xclip");

std::optional<SelectionReadError::Case> readError(SelectionReader& reader)
{
    try {
        reader.readSelection();
    } catch (const SelectionReadError& error) {
        return error.errorCase();
    }
    return std::nullopt;
}

// Qt registers with the accessibility bus a moment after its window shows.
bool accessibleFocusAppears(qint64 process, bool secure)
{
    CapturePlatform platform = CapturePlatform::create();
    if (!platform.accessibility) {
        return false;
    }
    return spinUntil(
        [&] {
            for (const auto& element : platform.accessibility->focusedElements(process, 250ms)) {
                if (element->isSecure() == secure) {
                    return true;
                }
            }
            return false;
        },
        10000);
}

std::optional<QByteArray> clipboardFormat(const char* target)
{
    return runTool(xclip, {"-o", "-selection", "clipboard", "-t", QString::fromLatin1(target)});
}

class SelectionReaderDesktopTest : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_FALSE(qEnvironmentVariableIsEmpty("DISPLAY")) << "run inside scripts/desktop-session.sh";
        X11TestTools::clearSelection("PRIMARY");
    }
};

TEST_F(SelectionReaderDesktopTest, ReadsTheFocusedFieldThroughAccessibilityWithItsBounds)
{
    TestClient fields({"fields", "--focus", "text"}, true);
    const QStringList ready = fields.readyLine().split(u' ');
    ASSERT_EQ(ready.size(), 5) << ready.join(u' ').toStdString();
    const QRectF window(ready[1].toInt(), ready[2].toInt(), ready[3].toInt(), ready[4].toInt());
    ASSERT_TRUE(accessibleFocusAppears(fields.processId(), false));

    SelectionReader reader;
    const SelectionResult result = reader.readSelection();
    EXPECT_EQ(result.text, QString::fromUtf8(CaptureTestData::selectedTrimmed));
    ASSERT_TRUE(result.anchorRect) << "the text came from somewhere other than AT-SPI";
    EXPECT_TRUE(window.contains(*result.anchorRect))
        << result.anchorRect->x() << ',' << result.anchorRect->y() << ' ' << result.anchorRect->width() << 'x'
        << result.anchorRect->height();
    EXPECT_GT(result.anchorRect->width(), 10);

    const auto peeked = reader.peekSelection(fields.processId());
    ASSERT_TRUE(peeked);
    EXPECT_EQ(peeked->text, result.text);
    EXPECT_EQ(peeked->anchorRect, result.anchorRect);
}

TEST_F(SelectionReaderDesktopTest, RefusesAFocusedPasswordFieldWithoutFallingBack)
{
    // Something on CLIPBOARD and PRIMARY that a fallback would happily return.
    BackgroundTool primary(xclip, {"-quiet", "-selection", "primary"}, "primary text");
    spinUntil([] { return X11TestTools::selectionOwned("PRIMARY"); }, 5000);
    TestClient fields({"fields", "--focus", "password"}, true);
    ASSERT_FALSE(fields.readyLine().isEmpty());
    ASSERT_TRUE(accessibleFocusAppears(fields.processId(), true));

    SelectionReader reader;
    EXPECT_EQ(readError(reader), SelectionReadError::Case::secureField);
    EXPECT_FALSE(reader.peekSelection(fields.processId()));
}

TEST_F(SelectionReaderDesktopTest, ReadsPrimaryWhenNoAccessibleSelectionExists)
{
    BackgroundTool primary(xclip, {"-quiet", "-selection", "primary"}, "\n  words from another client \n");
    ASSERT_TRUE(spinUntil([] { return X11TestTools::selectionOwned("PRIMARY"); }, 5000));

    SelectionReader reader;
    const SelectionResult result = reader.readSelection();
    EXPECT_EQ(result.text, QStringLiteral("words from another client"));
    EXPECT_FALSE(result.anchorRect);
}

TEST_F(SelectionReaderDesktopTest, BlankPrimaryAndAnUnansweredCopyAreNoSelectionAndLeaveTheClipboard)
{
    BackgroundTool clipboard(xclip, {"-quiet", "-selection", "clipboard"}, "kept as it was");
    BackgroundTool primary(xclip, {"-quiet", "-selection", "primary"}, " \n\t ");
    ASSERT_TRUE(spinUntil([] { return X11TestTools::selectionOwned("PRIMARY"); }, 5000));
    ASSERT_TRUE(spinUntil([] { return X11TestTools::selectionOwned("CLIPBOARD"); }, 5000));

    SelectionReader reader;
    EXPECT_EQ(readError(reader), SelectionReadError::Case::noSelection);
    EXPECT_FALSE(reader.isReading());
    EXPECT_EQ(clipboardFormat("UTF8_STRING"), QByteArray("kept as it was"));
}

TEST_F(SelectionReaderDesktopTest, CopyReturnsTheCopiedTextAndPutsEveryEarlierFormatBack)
{
    TestClient offer({"offer"});
    ASSERT_EQ(offer.readyLine(), QStringLiteral("ready"));
    TestClient copier({"copy"});
    ASSERT_EQ(copier.readyLine(), QStringLiteral("ready"));

    SelectionReader reader;
    const SelectionResult result = reader.readSelection();
    EXPECT_EQ(result.text, QString::fromLatin1(CaptureTestData::copiedPlain));
    EXPECT_FALSE(result.anchorRect);

    EXPECT_EQ(clipboardFormat("UTF8_STRING"), QByteArray(CaptureTestData::earlierText));
    EXPECT_EQ(clipboardFormat("text/html"), QByteArray(CaptureTestData::earlierHtml));
    const std::string image = CaptureTestData::earlierImage();
    EXPECT_EQ(clipboardFormat("image/png"), QByteArray(image.data(), qsizetype(image.size())));
    const auto targets = clipboardFormat("TARGETS");
    ASSERT_TRUE(targets);
    EXPECT_EQ(targets->count("TARGETS"), 1) << targets->constData();
    EXPECT_TRUE(targets->contains("text/plain;charset=utf-8")) << targets->constData();

    // The restored content is what a later read snapshots and restores again.
    EXPECT_EQ(reader.clipboardText().text, QString::fromLatin1(CaptureTestData::earlierText));
    EXPECT_EQ(reader.readSelection().text, QString::fromLatin1(CaptureTestData::copiedPlain));
    EXPECT_EQ(clipboardFormat("text/html"), QByteArray(CaptureTestData::earlierHtml));
}

TEST_F(SelectionReaderDesktopTest, TerminalsGetCtrlShiftC)
{
    TestClient terminal({"copy", "--class", "gnome-terminal"});
    ASSERT_EQ(terminal.readyLine(), QStringLiteral("ready"));
    SelectionReader reader;
    EXPECT_EQ(reader.readSelection().text, QString::fromLatin1(CaptureTestData::copiedWithShift));
}

TEST_F(SelectionReaderDesktopTest, ClipboardWrittenAfterTheCopyIsNotOverwritten)
{
    TestClient offer({"offer"});
    ASSERT_EQ(offer.readyLine(), QStringLiteral("ready"));
    TestClient copier({"copy", "--replace"});
    ASSERT_EQ(copier.readyLine(), QStringLiteral("ready"));

    SelectionReader reader;
    EXPECT_EQ(reader.readSelection().text, QString::fromLatin1(CaptureTestData::copiedPlain));
    EXPECT_EQ(clipboardFormat("UTF8_STRING"), QByteArray(CaptureTestData::newerText));
    EXPECT_FALSE(clipboardFormat("text/html")) << "the snapshot came back over the newer content";
}

TEST_F(SelectionReaderDesktopTest, ClipboardTextIsTrimmedAndAnEmptyClipboardIsUnavailable)
{
    SelectionReader reader;
    {
        BackgroundTool clipboard(xclip, {"-quiet", "-selection", "clipboard"}, "  剪贴板里的文字\n");
        ASSERT_TRUE(spinUntil([] { return X11TestTools::selectionOwned("CLIPBOARD"); }, 5000));
        EXPECT_EQ(reader.clipboardText().text, QStringLiteral("剪贴板里的文字"));
    }
    X11TestTools::clearSelection("CLIPBOARD");
    try {
        reader.clipboardText();
        ADD_FAILURE() << "an empty clipboard gave text";
    } catch (const SelectionReadError& error) {
        EXPECT_EQ(error.errorCase(), SelectionReadError::Case::clipboardUnavailable);
        EXPECT_EQ(error.description(), QStringLiteral("无法通过剪贴板读取当前选区。"));
    }
}

} // namespace
} // namespace velnora
