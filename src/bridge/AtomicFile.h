#pragma once

#include <QByteArray>
#include <QString>

// Whole-file writes that a concurrent reader never sees half done.
namespace velnora::AtomicFile {

// Writes the bytes to a sibling temporary named "<path>.sb-<8 hex>-<6 alphanumerics>" and renames it
// over the target. The temporary is created with mode 0600. Throws FileSystemError; on failure the
// temporary is removed when possible (a crash leaves it for the store's sweep).
void write(const QString& path, const QByteArray& bytes);

// Writes bytes to a new file (it must not exist), mode 0600, without the rename step.
void writeNew(const QString& path, const QByteArray& bytes);

// Reads a whole file; *ok tells an empty file from an unreadable one.
QByteArray read(const QString& path, bool* ok);

void setPermissions(const QString& path, unsigned mode);

} // namespace velnora::AtomicFile
