// libFuzzer target for the stored settings: the input is the settings file, as a user's hand edit or an
// older version may have left it. Every read must give a usable value, and resolving the API provider may
// refuse only with a ConfigurationError, whose text the settings window shows.
#include "ScratchFile.h"
#include "config/ConfigurationError.h"
#include "config/ConfigurationStore.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <cstdint>
#include <cstdlib>

using namespace velnora;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static QTemporaryDir folder(QDir::tempPath() + QStringLiteral("/fuzz_settings-XXXXXX"));
    const QString path = QDir(folder.path()).filePath(QStringLiteral("velnora-domestic.conf"));
    writeScratchFile(path, QByteArray(reinterpret_cast<const char*>(data), qsizetype(size)));
    QFile::remove(path + QStringLiteral(".unreadable")); // set-aside lines would pile up run after run

    const ConfigurationStore store(path);
    (void)store.executionMode();
    (void)store.browserProvider();
    (void)store.explanationDepth();
    (void)store.didShowVersion2Setup();
    (void)store.globalHotKeyID();
    (void)store.lastKnownGoodProvider();
    if (store.apiProviderID().isEmpty() || store.systemPrompt().isNull()) {
        std::abort(); // the provider falls back to the default one; the prompt is text
    }
    for (const QString& id : store.providerOverrides().keys()) {
        if (!store.providerOverride(id)) {
            std::abort(); // an override listed but not found
        }
    }
    try {
        const ResolvedProviderConfiguration resolved = store.resolvedProvider(QStringLiteral(" 密钥 "));
        if (resolved.apiKey != u"密钥" || resolved.model.isEmpty()) {
            std::abort(); // resolved without a trimmed key or a model
        }
    } catch (const ConfigurationError& error) {
        if (error.description().isEmpty()) {
            std::abort(); // every refusal has a text to show
        }
    }
    return 0;
}
