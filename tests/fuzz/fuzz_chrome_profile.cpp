// libFuzzer target for the browser's profile files that the bridge diagnosis reads. Input: "Local State",
// "Preferences" and "Secure Preferences" of the profile "Default", separated by NUL bytes (JSON never
// holds one). The browser writes these files, other extensions and hand edits may leave anything in them;
// the probe must answer, never crash, and never take a profile name that leaves the browser's folder.
#include "FuzzInput.h"
#include "bridge/ChromeProfileProbe.h"
#include "config/ProviderCatalog.h"

using namespace velnora;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QDir root = scratchFolder();
    root.mkpath(QStringLiteral("Default"));
    const QList<QByteArray> parts = fuzzBytes(data, size).split('\0');
    const char* const files[] = {"Local State", "Default/Preferences", "Default/Secure Preferences"};
    for (int i = 0; i < 3; ++i) {
        const QString path = root.filePath(QLatin1String(files[i]));
        if (i < parts.size()) {
            writeScratchFile(path, parts[i]);
        } else {
            QFile::remove(path);
        }
    }

    for (const QString& name : ChromeProfileProbe::profileNames(root.path())) {
        if (name.isEmpty() || name.contains(u'/') || name == u"..") {
            fuzzFault("a profile name that leaves the browser's folder");
        }
    }
    for (const QString& identifier : {ExplainerConstants::extensionIdentifier(),
                                      QString::fromLatin1(ChromeProfileProbe::otherEditionIdentifier)}) {
        const ChromeExtensionInstall answer = ChromeProfileProbe::inspect(identifier, root.path());
        if (answer.kind == ChromeExtensionInstall::Kind::unpacked && answer.path.isEmpty()) {
            fuzzFault("an unpacked install that names no folder");
        }
    }
    return 0;
}
