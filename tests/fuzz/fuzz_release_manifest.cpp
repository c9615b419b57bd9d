// libFuzzer target for the release manifest the web site serves, and for the version strings in it.
// Input: the manifest, then after a NUL byte up to three version strings, one per line. Decoding either
// gives a manifest or throws ReleaseError, nothing else; the version order must be a real order
// (antisymmetric and transitive), or "newer" could flip between two checks.
#include "updates/ProductRelease.h"

#include <QList>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

using namespace velnora;

namespace {

[[noreturn]] void fail(const char* what, const QString& a, const QString& b)
{
    std::fprintf(stderr, "fuzz_release_manifest: %s: \"%s\" \"%s\"\n", what, qUtf8Printable(a),
                 qUtf8Printable(b));
    std::abort();
}

void checkOrder(const QStringList& versions)
{
    using ProductRelease::compareVersions;
    for (const QString& a : versions) {
        if (compareVersions(a, a) != 0) {
            fail("a version differs from itself", a, a);
        }
        for (const QString& b : versions) {
            if (compareVersions(a, b) != -compareVersions(b, a)) {
                fail("the order is not antisymmetric", a, b);
            }
            for (const QString& c : versions) {
                if (compareVersions(a, b) <= 0 && compareVersions(b, c) <= 0 && compareVersions(a, c) > 0) {
                    fail("the order is not transitive", a, c);
                }
            }
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char*>(data), qsizetype(size));
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
    checkOrder(versions);
    return 0;
}
