// The reader's decisions over orderings and failures that real applications cannot be made to produce
// on demand; the real mechanisms are exercised by the desktop tests.
#include "capture/SelectionReadError.h"
#include "capture/SelectionReader.h"

#include <gtest/gtest.h>

#include <functional>

namespace velnora {
namespace {

struct FakeElement : AccessibleElement
{
    FakeElement(bool secure, std::optional<QString> text) : secure(secure), text(std::move(text)) {}
    bool secure = false;
    std::optional<QString> text;
    bool isSecure() override { return secure; }
    std::optional<QString> selectedText() override { return text; }
    std::optional<QRectF> selectedTextScreenRect() override { return QRectF(10, 10, 50, 12); }
};

struct FakeAccessibility : AccessibilityProbe
{
    std::vector<FakeElement> elements;
    std::optional<std::chrono::milliseconds> lastTimeout;
    std::vector<std::unique_ptr<AccessibleElement>>
    focusedElements(std::optional<qint64>, std::optional<std::chrono::milliseconds> timeout) override
    {
        lastTimeout = timeout;
        std::vector<std::unique_ptr<AccessibleElement>> list;
        for (const FakeElement& element : elements) {
            list.push_back(std::make_unique<FakeElement>(element));
        }
        return list;
    }
};

struct FakeClipboard : ClipboardAccess
{
    std::optional<QString> primary;
    std::optional<QString> clipboard;
    std::uint64_t changes = 0;
    int restores = 0;
    std::optional<QString> primaryText() override { return primary; }
    std::optional<QString> clipboardText() override { return clipboard; }
    ClipboardSnapshot snapshotClipboard() override { return {}; }
    void restoreClipboard(const ClipboardSnapshot&) override { ++restores; }
    std::uint64_t clipboardChangeCount() override { return changes; }
};

struct FakeKeyboard : KeyStrokeInjector
{
    int posts = 0;
    std::function<void()> onPost;
    bool modifiersHeld() override { return false; }
    bool postCopyShortcut() override
    {
        ++posts;
        if (onPost) {
            onPost();
        }
        return true;
    }
};

class SelectionReaderTest : public testing::Test
{
protected:
    SelectionReaderTest()
    {
        CapturePlatform platform;
        platform.accessibility.reset(accessibility = new FakeAccessibility);
        platform.clipboard.reset(clipboard = new FakeClipboard);
        platform.keyboard.reset(keyboard = new FakeKeyboard);
        reader = std::make_unique<SelectionReader>(std::move(platform));
    }

    SelectionReadError::Case readError()
    {
        try {
            reader->readSelection();
        } catch (const SelectionReadError& error) {
            return error.errorCase();
        }
        ADD_FAILURE() << "readSelection did not throw";
        return SelectionReadError::Case::selectionTooLong;
    }

    FakeAccessibility* accessibility;
    FakeClipboard* clipboard;
    FakeKeyboard* keyboard;
    std::unique_ptr<SelectionReader> reader;
};

TEST_F(SelectionReaderTest, PasswordFieldStopsTheReadBeforeLaterCandidatesAndTheCopy)
{
    accessibility->elements = {{true, QStringLiteral("secret")}, {false, QStringLiteral("visible text")}};
    clipboard->primary = QStringLiteral("primary text");
    EXPECT_EQ(readError(), SelectionReadError::Case::secureField);
    EXPECT_EQ(keyboard->posts, 0);
    EXPECT_FALSE(reader->isReading());
    EXPECT_FALSE(reader->peekSelection(std::nullopt));
    EXPECT_EQ(accessibility->lastTimeout, std::chrono::milliseconds(250));
}

TEST_F(SelectionReaderTest, BlankCandidatesFallThroughToTheNextSource)
{
    accessibility->elements = {{false, QStringLiteral(" \n\t ")}, {false, std::nullopt}};
    clipboard->primary = QStringLiteral("\n  from primary \n");
    const SelectionResult result = reader->readSelection();
    EXPECT_EQ(result.text, QStringLiteral("from primary"));
    EXPECT_FALSE(result.anchorRect);
    EXPECT_FALSE(reader->peekSelection(std::nullopt));

    accessibility->elements.emplace_back(false, QStringLiteral("  accessible  "));
    EXPECT_EQ(reader->readSelection().text, QStringLiteral("accessible"));
}

TEST_F(SelectionReaderTest, CopyThatChangesNothingIsTriedTwiceThenNoSelection)
{
    clipboard->primary = QStringLiteral("   ");
    clipboard->clipboard = QStringLiteral("old clipboard");
    EXPECT_EQ(readError(), SelectionReadError::Case::noSelection);
    EXPECT_EQ(keyboard->posts, 2);
    EXPECT_EQ(clipboard->restores, 0); // nothing was written, so nothing is put back
}

TEST_F(SelectionReaderTest, CopiedBlankTextIsNoSelectionButTheClipboardIsStillRestored)
{
    keyboard->onPost = [this] {
        ++clipboard->changes;
        clipboard->clipboard = QStringLiteral(" \n ");
    };
    EXPECT_EQ(readError(), SelectionReadError::Case::noSelection);
    EXPECT_EQ(keyboard->posts, 1);
    EXPECT_EQ(clipboard->restores, 1);
}

TEST_F(SelectionReaderTest, SecondReadDuringTheCopyIsRefusedAndTheFirstCompletes)
{
    std::optional<SelectionReadError::Case> nested;
    keyboard->onPost = [this, &nested] {
        EXPECT_TRUE(reader->isReading());
        nested = readError();
        ++clipboard->changes;
        clipboard->clipboard = QStringLiteral("copied");
    };
    EXPECT_EQ(reader->readSelection().text, QStringLiteral("copied"));
    EXPECT_EQ(nested, SelectionReadError::Case::noSelection);
    EXPECT_FALSE(reader->isReading());
}

TEST(SelectionReaderWithoutDisplayTest, EveryEntryPointFailsCleanly)
{
    SelectionReader reader{CapturePlatform{}};
    try {
        reader.readSelection();
        ADD_FAILURE() << "read without a display";
    } catch (const SelectionReadError& error) {
        EXPECT_EQ(error.errorCase(), SelectionReadError::Case::accessibilityPermissionRequired);
    }
    EXPECT_FALSE(reader.peekSelection(42));
    try {
        reader.clipboardText();
        ADD_FAILURE() << "clipboard without a display";
    } catch (const SelectionReadError& error) {
        EXPECT_EQ(error.errorCase(), SelectionReadError::Case::clipboardUnavailable);
    }
}

} // namespace
} // namespace velnora
