#pragma once

namespace velnora::FontCaches {

// Qt keeps every font engine it has loaded, and its whole font database, for the life of the process:
// megabytes of faces, tables and mapped font files for a card that lived a few seconds. Lets them go;
// Qt rebuilds what the next window needs (about 2 ms with a hundred fonts, 20 ms with thousands).
// Nothing happens where no small font to do it with is installed.
void release();
// Has the font list read on another thread now, for text about to be shown: Qt reads it at first use
// after start or release, which takes tens of milliseconds where thousands of fonts are installed.
void prepare();

} // namespace velnora::FontCaches
