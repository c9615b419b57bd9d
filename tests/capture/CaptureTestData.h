#pragma once

#include <QByteArray>

namespace velnora::test::CaptureTestData {

// The selection takes the spaces around the words, so trimming shows.
inline constexpr const char* fieldText = "前缀 解释这段文字 后缀";
inline constexpr int selectionStart = 2;
inline constexpr int selectionLength = 8; // " 解释这段文字 " with its spaces
inline constexpr const char* selectedTrimmed = "解释这段文字";

inline constexpr const char* copiedPlain = "copied with ctrl+c";
inline constexpr const char* copiedWithShift = "copied with ctrl+shift+c";
inline constexpr const char* newerText = "newer clipboard text";

inline constexpr const char* earlierText = "earlier clipboard text";
inline constexpr const char* earlierHtml = "<p>earlier <b>clipboard</b></p>";

// Binary data with NUL bytes and every byte value, larger than one X request carries by default.
inline QByteArray earlierImage()
{
    QByteArray data("\x89PNG\r\n\x1a\n\0", 9);
    for (unsigned state = 12345; data.size() < 300 * 1024;) {
        state = state * 1103515245u + 12345u;
        data.append(char(state >> 16));
    }
    return data;
}

} // namespace velnora::test::CaptureTestData
