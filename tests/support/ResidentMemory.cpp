#include "ResidentMemory.h"

#include <QFile>

namespace ResidentMemory {

namespace {

long statusFieldKiB(const char* field) {
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray& line : status.readAll().split('\n'))
        if (line.startsWith(field))
            return line.mid(qstrlen(field)).trimmed().split(' ').first().toLong();
    return -1;
}

} // namespace

long currentKiB() {
    return statusFieldKiB("VmRSS:");
}

long peakKiB() {
    return statusFieldKiB("VmHWM:");
}

void resetPeak() {
    QFile clear(QStringLiteral("/proc/self/clear_refs"));
    if (clear.open(QIODevice::WriteOnly))
        clear.write("5");
}

} // namespace ResidentMemory
