#pragma once

#include <QByteArray>
#include <QFile>
#include <QString>
#include <cstdlib>

// Puts the fuzzer's bytes where the parser under test reads them. A scratch folder that cannot be
// written is the machine's fault, not a finding: stop at once rather than fuzz nothing.
inline void writeScratchFile(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(bytes) != bytes.size()) {
        std::abort();
    }
}
