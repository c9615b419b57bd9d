#pragma once

#include <string>

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

// Binary data with NUL bytes and every byte value, large enough to span many X requests' worth.
inline std::string earlierImage()
{
    std::string data = "\x89PNG\r\n\x1a\n";
    data.push_back('\0');
    unsigned state = 12345;
    while (data.size() < 300 * 1024) {
        state = state * 1103515245u + 12345u;
        data.push_back(char(state >> 16));
    }
    return data;
}

} // namespace velnora::test::CaptureTestData
