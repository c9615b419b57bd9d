// libFuzzer target for the stored settings: the input is the settings file, as a user's hand edit or an
// older version may have left it. Every read must give a usable value, and resolving the API provider may
// refuse only with a ConfigurationError, whose text the settings window shows.
#include "FuzzInput.h"
#include "config/ConfigurationError.h"
#include "config/ConfigurationStore.h"

using namespace velnora;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QString path = scratchFolder().filePath(QStringLiteral("velnora-domestic.conf"));
    writeScratchFile(path, fuzzBytes(data, size));
    QFile::remove(path + QStringLiteral(".unreadable")); // set-aside lines would pile up run after run

    const ConfigurationStore store(path);
    (void)store.executionMode();
    (void)store.browserProvider();
    (void)store.explanationDepth();
    (void)store.didShowVersion2Setup();
    (void)store.globalHotKeyID();
    (void)store.lastKnownGoodProvider();
    if (store.apiProviderID().isEmpty() || store.systemPrompt().isNull()) {
        fuzzFault("no provider to fall back to, or no prompt text");
    }
    for (const QString& id : store.providerOverrides().keys()) {
        if (!store.providerOverride(id)) {
            fuzzFault("an override listed but not found");
        }
    }
    try {
        const ResolvedProviderConfiguration resolved = store.resolvedProvider(QStringLiteral(" 密钥 "));
        if (resolved.apiKey != u"密钥" || resolved.model.isEmpty()) {
            fuzzFault("resolved without a trimmed key or a model");
        }
    } catch (const ConfigurationError& error) {
        if (error.description().isEmpty()) {
            fuzzFault("a refusal without a text to show");
        }
    }
    return 0;
}
