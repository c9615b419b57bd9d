// libFuzzer target for Firefox's profile files that the bridge diagnosis reads. Input: "profiles.ini",
// then the default profile's "extensions.json" and "lock" link target, separated by NUL bytes. Firefox,
// other programs and hand edits may leave anything there; the probe must answer and never crash.
#include "FuzzInput.h"
#include "bridge/FirefoxBrowser.h"
#include "config/ProviderCatalog.h"

using namespace velnora;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QDir root = scratchFolder();
    root.mkpath(QStringLiteral("abc.default"));
    const QString profile = root.filePath(QStringLiteral("abc.default"));
    const QList<QByteArray> parts = fuzzBytes(data, size).split('\0');
    writeScratchFile(root.filePath(QStringLiteral("profiles.ini")), parts.value(0));
    writeScratchFile(profile + QStringLiteral("/extensions.json"), parts.value(1));
    const QString lock = profile + QStringLiteral("/lock");
    QFile::remove(lock);
    if (parts.size() > 2 && !parts[2].isEmpty() && !parts[2].contains('/')) {
        QFile::link(QString::fromUtf8(parts[2]), lock);
    }

    const std::optional<QString> chosen = FirefoxBrowser::defaultProfile(root.path());
    if (chosen && chosen->isEmpty()) {
        fuzzFault("an empty profile folder");
    }
    for (const QString& identifier :
         {ExplainerConstants::firefoxExtensionIdentifier(), ExplainerConstants::extensionIdentifier()}) {
        (void)FirefoxBrowser::inspect(identifier, profile);
    }
    (void)FirefoxBrowser::isRunning(profile);
    (void)FirefoxBrowser::isRunning(profile, true);
    return 0;
}
