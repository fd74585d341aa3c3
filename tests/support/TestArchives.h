#pragma once

#include <QString>
#include <QStringList>

// Builds real gzip tar archives with /usr/bin/tar for tests, and digests files with the system's
// own sha256sum, so that what the launcher computes is checked against an independent program.
namespace TestArchives {

// Runs /usr/bin/tar with `arguments`, fails the test when tar does, and returns what it printed.
QByteArray tar(const QStringList& arguments);
// Runs /usr/bin/tar -czf `archive` `options`... -C `folder` `members`... and fails the test when
// tar does.
void create(const QString& archive, const QString& folder, const QStringList& members,
            const QStringList& options = {});
// The bytes of an archive made as by create(), for tests that serve or publish them.
QByteArray bytesOf(const QString& folder, const QStringList& members,
                   const QStringList& options = {});
// An archive whose single member is renamed to `name` on the way in, so that names no careful
// tool would write (absolute, with "..") can be produced. The member is a small file.
void createWithName(const QString& archive, const QString& name, const QString& scratch);
// A build archive: "zentho" (an executable that exits at once) at the top level.
void createBuild(const QString& archive, const QString& scratch);
// Lower-case hex digest by sha256sum(1).
QString sha256sum(const QString& path);

} // namespace TestArchives
