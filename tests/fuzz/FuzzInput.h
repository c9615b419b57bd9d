#pragma once

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QString>
#include <QTemporaryDir>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

// What the fuzz targets share: the input as Qt holds it, a scratch folder, and a stop that says why.

inline QByteArray fuzzBytes(const uint8_t* data, size_t size)
{
    return QByteArray(reinterpret_cast<const char*>(data), qsizetype(size));
}

// A finding: names the broken property, then aborts so that libFuzzer keeps the input.
[[noreturn]] inline void fuzzFault(const char* what)
{
    std::fprintf(stderr, "fuzz fault: %s\n", what);
    std::abort();
}

// A folder for the whole run, removed when the process ends.
inline QDir scratchFolder()
{
    static QTemporaryDir folder(QDir::tempPath() + QStringLiteral("/velnora-fuzz-XXXXXX"));
    return QDir(folder.path());
}

// Puts the fuzzer's bytes where the parser under test reads them. A scratch folder that cannot be
// written is the machine's fault, not a finding: stop at once rather than fuzz nothing.
inline void writeScratchFile(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(bytes) != bytes.size()) {
        std::abort();
    }
}

// The Qt application object some code under test needs; it lives as long as the process.
template <class Application> void startApplication()
{
    static int argc = 1;
    static char name[] = "fuzz";
    static char* argv[] = {name, nullptr};
    new Application(argc, argv);
}
