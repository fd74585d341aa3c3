#pragma once

#include <QByteArray>
#include <QString>

// Small file helpers for setting up test fixtures on disk.
namespace TestFiles {

void writeFile(const QString& path, const QByteArray& bytes, int mode = 0644);
QByteArray readFile(const QString& path); // empty when it cannot be read
// `size` bytes that do not compress, the same for the same `seed`.
QByteArray randomBytes(qsizetype size, quint32 seed);
void makeFolder(const QString& path);
// A shell script that stands in for a game build's executable.
void writeScript(const QString& path, const QByteArray& body);
// The permission bits of `path` itself (a link is not followed), or -1 when nothing is there.
int modeOf(const QString& path);
// A folder holding an executable "zentho" that exits at once.
void makeBuild(const QString& folder);

} // namespace TestFiles
