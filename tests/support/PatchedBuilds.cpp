#include "PatchedBuilds.h"

#include "ReleaseTool.h"

#include <QDir>
#include <QFile>

#include <cstring>

namespace PatchedBuilds {

namespace {

const qint64 kMiB = 1024 * 1024;
const int kFiles = 32; // of each kind

QString fileName(int i) {
    return i % 2 == 0 ? QStringLiteral("assets/pack%1.bin").arg(i / 2, 2, 10, QLatin1Char('0'))
                      : QStringLiteral("data/levels%1.txt").arg(i / 2, 2, 10, QLatin1Char('0'));
}

} // namespace

QByteArray noise(qint64 size, std::mt19937_64& random) {
    QByteArray bytes(size, Qt::Uninitialized);
    for (qint64 at = 0; at + 8 <= size; at += 8) {
        const quint64 word = random();
        std::memcpy(bytes.data() + at, &word, 8);
    }
    return bytes;
}

QByteArray text(qint64 size, std::mt19937_64& random) {
    static const char* const words[] = {"spawn", "enemy", "level", "texture", "shader", "speed", "health",
                                        "door", "key", "light", "sound", "trigger", "path", "zone",
                                        "water", "fire", "stone", "wood", "metal", "glass"};
    QByteArray bytes;
    bytes.reserve(size + 64);
    while (bytes.size() < size) {
        const quint64 r = random();
        bytes += words[r % 20];
        bytes += '.';
        bytes += words[(r >> 8) % 20];
        bytes += " = ";
        bytes += QByteArray::number((r >> 16) % 100000);
        bytes += (r >> 40) % 4 == 0 ? "\n" : "; ";
    }
    bytes.truncate(size);
    return bytes;
}

bool write(const QString& path, const QByteArray& bytes) {
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(bytes) == bytes.size();
}

qint64 make(const QString& old, const QString& next, qint64 total) {
    std::mt19937_64 random(20240917);
    const qint64 perFile = total / (2 * kFiles);
    for (const QString& root : {old, next}) {
        QDir().mkpath(root + QStringLiteral("/assets"));
        QDir().mkpath(root + QStringLiteral("/data"));
        QFile::copy(ReleaseTool::standinGame020(), root + QStringLiteral("/zentho"));
    }
    const qint64 changePerFile = total / 100 / kChangedFiles;
    qint64 changed = 0;
    for (int i = 0; i < 2 * kFiles; ++i) {
        const bool binary = i % 2 == 0;
        const QByteArray bytes = binary ? noise(perFile, random) : text(perFile, random);
        if (!write(old + QLatin1Char('/') + fileName(i), bytes))
            return -1;
        QByteArray updated = bytes;
        // Every third file changes until 20 have: half of the change rewritten in place in one
        // spot, half inserted in another, so later bytes move.
        if (i % 3 == 0 && i / 3 < kChangedFiles) {
            const qint64 half = changePerFile / 2;
            const QByteArray fresh = binary ? noise(changePerFile, random) : text(changePerFile, random);
            updated.replace(perFile / 4, half, fresh.left(half));
            updated.insert(perFile * 3 / 4, fresh.mid(half));
            changed += changePerFile;
        }
        if (!write(next + QLatin1Char('/') + fileName(i), updated))
            return -1;
    }
    std::mt19937_64 other(7);
    if (!write(next + QStringLiteral("/data/patch-notes.bin"), noise(5 * kMiB / 2, other) + text(5 * kMiB / 2, other)))
        return -1;
    return changed;
}

} // namespace PatchedBuilds
