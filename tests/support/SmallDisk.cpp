#include "SmallDisk.h"

SmallDisk::SmallDisk(int megabytes) {
    // The holder reads its standard input until it closes, which happens when this object kills
    // it and also when the test process dies: the namespace, and the tmpfs with it, never
    // outlives the test.
    holder_.start(
        QStringLiteral("/usr/bin/unshare"),
        {QStringLiteral("--mount"), QStringLiteral("--propagation"), QStringLiteral("private"),
         QStringLiteral("/bin/sh"), QStringLiteral("-c"),
         QStringLiteral(
             "mount -t tmpfs -o size=%1m tmpfs \"$0\" && echo ready && exec cat >/dev/null")
             .arg(megabytes),
         mountPoint_.path()});
    if (holder_.waitForReadyRead(60000) && holder_.readAll().startsWith("ready"))
        path_ = QStringLiteral("/proc/%1/root%2").arg(holder_.processId()).arg(mountPoint_.path());
}

SmallDisk::~SmallDisk() {
    holder_.kill();
    holder_.waitForFinished(60000);
}
