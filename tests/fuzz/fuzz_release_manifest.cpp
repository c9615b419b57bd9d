// libFuzzer target for the release manifest the web site serves, and for the version strings in it.
// Input: the manifest, then after a NUL byte up to three version strings, one per line. Decoding either
// gives a manifest or throws ReleaseError, nothing else; the version order must be a real order
// (antisymmetric and transitive), or "newer" could flip between two checks.
#include "FuzzInput.h"
#include "updates/ProductRelease.h"

using namespace velnora;
using ProductRelease::compareVersions;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray bytes = fuzzBytes(data, size);
    const qsizetype split = bytes.indexOf('\0');
    QStringList versions;
    try {
        const ProductRelease::Manifest manifest =
            ProductRelease::decode(split < 0 ? bytes : bytes.first(split));
        versions << manifest.macos.version << manifest.chrome.version << manifest.minimumExtensionVersion;
    } catch (const ReleaseError&) {
    }
    if (split >= 0) {
        versions = QString::fromUtf8(bytes.sliced(split + 1)).split(u'\n').mid(0, 3);
    }
    for (const QString& a : versions) {
        for (const QString& b : versions) {
            if (compareVersions(a, b) != -compareVersions(b, a)) {
                fuzzFault("the version order is not antisymmetric");
            }
            for (const QString& c : versions) {
                if (compareVersions(a, b) <= 0 && compareVersions(b, c) <= 0 && compareVersions(a, c) > 0) {
                    fuzzFault("the version order is not transitive");
                }
            }
        }
    }
    return 0;
}
