#pragma once

#include <QList>
#include <QString>
#include <QtGlobal>

// Room on the disks the launcher writes to, asked of the file system before a large write.
namespace FreeSpace {

// What an unprivileged writer may still write on the file system that holds `path`; -1 when it
// cannot be told.
qint64 available(const QString& path);

// `bytes` are about to be written inside `folder`, which exists.
struct Need {
    QString folder;
    qint64 bytes = 0;
};

// Throws DiskSpaceError when a file system would keep less than `reserve` free after taking
// every need that lands on it; needs on one file system add up and are named after the first
// of their folders. A file system that cannot be asked is taken to have room.
void require(const QList<Need>& needs, qint64 reserve);

} // namespace FreeSpace
