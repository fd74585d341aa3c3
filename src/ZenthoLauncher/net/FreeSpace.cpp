#include "net/FreeSpace.h"

#include "errors/Failure.h"
#include "net/TransferText.h"

#include <QFile>

#include <map>

#include <sys/stat.h>
#include <sys/statvfs.h>

namespace FreeSpace {

qint64 available(const QString& path) {
    struct statvfs fs {};
    if (::statvfs(QFile::encodeName(path).constData(), &fs) != 0)
        return -1;
    return qint64(fs.f_bavail) * qint64(fs.f_frsize);
}

void require(const QList<Need>& needs, qint64 reserve) {
    struct Disk {
        QString folder;
        qint64 bytes = 0;
        int order = 0;
    };
    std::map<dev_t, Disk> disks;
    for (const Need& need : needs) {
        struct stat st {};
        if (::stat(QFile::encodeName(need.folder).constData(), &st) != 0)
            continue;
        auto [it, fresh] = disks.try_emplace(st.st_dev);
        if (fresh)
            it->second = Disk{need.folder, 0, int(disks.size())};
        it->second.bytes += need.bytes;
    }
    // In the order the needs were given, so the folder named is the one the caller put first.
    std::map<int, const Disk*> ordered;
    for (const auto& [device, disk] : disks)
        ordered.emplace(disk.order, &disk);
    for (const auto& [order, disk] : ordered) {
        const qint64 free = available(disk->folder);
        const qint64 needed = disk->bytes + reserve;
        if (free >= 0 && free < needed)
            throw DiskSpaceError(
                QStringLiteral("Not enough free space in %1: %2 needed, %3 free.")
                    .arg(disk->folder, TransferText::size(needed), TransferText::size(free)));
    }
}

} // namespace FreeSpace
