#pragma once

#include "base/ProcessArguments.h"

#include <QString>
#include <optional>

// How one-shot processes drive the running application over the session bus: the four broadcast
// names, and the explain method of the running instance.
namespace velnora::ControlBus {

inline constexpr const char* serviceName = "com.tarnwick.lumaquill";
inline constexpr const char* objectPath = "/com/tarnwick/lumaquill";
inline constexpr const char* interfaceName = "com.tarnwick.lumaquill";
inline constexpr const char* notifySignal = "Notify";
inline constexpr const char* explainMethod = "ExplainSelection";

inline constexpr const char* previewName = "com.tarnwick.lumaquill.preview";
inline constexpr const char* pillPreviewName = "com.tarnwick.lumaquill.pill-preview";
inline constexpr const char* settingsName = "com.tarnwick.lumaquill.settings";
inline constexpr const char* translationSelfTestName = "com.tarnwick.lumaquill.translation-self-test";

// Emits Notify(name) and returns once the bus has the message. The reason in Chinese on failure.
std::optional<QString> broadcast(const QString& name);
// Asks the running instance to explain text, or its current selection when text is empty.
// The reason in Chinese on failure; notRunning tells whether no instance owns the name.
std::optional<QString> requestExplanation(const QString& text, bool* notRunning = nullptr);

// --send-preview, --send-pill-preview, --send-settings, --send-translation-self-test.
int runSendPreview(const ProcessArguments& arguments);
int runSendPillPreview(const ProcessArguments& arguments);
int runSendSettings(const ProcessArguments& arguments);
int runSendTranslationSelfTest(const ProcessArguments& arguments);
// --explain-selection [TEXT]: 0 when the running instance took the request, 2 when none runs.
int runExplainSelection(const ProcessArguments& arguments);

} // namespace velnora::ControlBus
