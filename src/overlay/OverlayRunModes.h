#pragma once

#include "base/ProcessArguments.h"

#include <QString>

namespace velnora::OverlayRunModes {

// --markdown-self-test, --overlay-self-test: one line each, exit status 0 or 1.
int runMarkdownSelfTest(const ProcessArguments& arguments);
int runOverlaySelfTest(const ProcessArguments& arguments);
// --render-pill PATH, --render-overlay PATH, dark with --dark: PNG images at device pixel ratio 2.
int runRenderPill(const ProcessArguments& arguments);
int runRenderOverlay(const ProcessArguments& arguments);

// The checks behind the self-tests; an empty string when all pass, else the first failure.
QString markdownFailure();
QString overlayFailure();
// Writes the images; an empty string on success, else the reason. Need a QApplication.
QString renderPill(const QString& path, bool dark);
QString renderOverlay(const QString& path, bool dark);

// The fixed answer of previews: every construct of the Markdown dialect, in Chinese.
QString sampleAnswer();

} // namespace velnora::OverlayRunModes
