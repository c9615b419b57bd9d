#pragma once

namespace velnora::FontCaches {

// Qt keeps every font engine it has loaded, and its whole font database, for the life of the process:
// megabytes of faces, tables and mapped font files for a card that lived a few seconds. Lets them go;
// Qt rebuilds what the next window needs (about 2 ms with a hundred fonts, 20 ms with thousands).
// Nothing happens where no small font to do it with is installed.
void release();

} // namespace velnora::FontCaches
