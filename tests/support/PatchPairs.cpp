#include "PatchPairs.h"

#include "PatchedBuilds.h"
#include "ReleaseTool.h"

#include <QDir>
#include <QFile>
#include <QProcess>

#include <random>

namespace PatchPairs {

namespace {

const qint64 kMiB = 1024 * 1024;
const int kFiles = 32; // of each kind
const int kPackSpots = 36;
const QString kPack = QStringLiteral("assets/engine.pak");

QString fileName(int i) {
    return i % 2 == 0 ? QStringLiteral("assets/pack%1.bin").arg(i / 2, 2, 10, QLatin1Char('0'))
                      : QStringLiteral("data/levels%1.txt").arg(i / 2, 2, 10, QLatin1Char('0'));
}

QByteArray fresh(bool binary, qint64 size, std::mt19937_64& random) {
    return binary ? PatchedBuilds::noise(size, random) : PatchedBuilds::text(size, random);
}

// A pack's content: blocks of 1 MiB, alternately bytes that do not compress (textures, sounds)
// and text-like data (scripts, tables).
bool binaryAt(qint64 offset) { return (offset / kMiB) % 2 == 0; }

QByteArray packContent(qint64 size, std::mt19937_64& random) {
    QByteArray bytes;
    bytes.reserve(size);
    for (qint64 at = 0; at < size; at += kMiB)
        bytes += fresh(binaryAt(at), std::min(kMiB, size - at), random);
    return bytes;
}

// Writes `content` gzip-compressed to `path` + ".gz" the way a build pipeline would (gzip -6, no
// name or time in the header, so the same content compresses to the same bytes).
bool writeGzip(const QString& path, const QByteArray& content) {
    return PatchedBuilds::write(path, content) &&
           QProcess::execute(QStringLiteral("gzip"), {QStringLiteral("-n6f"), path}) == 0;
}

bool link(const QString& target, const QString& path) {
    return QFile::link(target, path);
}

} // namespace

Made make(const QString& base, const QString& hotfix, const QString& engine, qint64 total) {
    Made made;
    std::mt19937_64 random(20251126);
    const qint64 packContentBytes = total * 3 / 16; // compresses to about total / 8
    const qint64 perFile = (total - total / 8) / (2 * kFiles);
    for (const QString& root : {base, hotfix, engine}) {
        if (!QDir().mkpath(root + QStringLiteral("/assets")) || !QDir().mkpath(root + QStringLiteral("/data")) ||
            !QFile::copy(ReleaseTool::standinGame020(), root + QStringLiteral("/zentho")))
            return made;
    }
    qint64 written = 0;
    int inserted = 0;
    for (int i = 0; i < 2 * kFiles; ++i) {
        const bool binary = i % 2 == 0;
        const QByteArray bytes = fresh(binary, perFile, random);
        QByteArray patched = bytes;
        // Every third file is a hotfix file until there are 20, rewritten in eight spots spread
        // over it.
        if (i % 3 == 0 && i / 3 < kHotfixFiles) {
            for (int spot = 0; spot < kHotfixEditsPerFile; ++spot) {
                const qint64 at = perFile * (2 * spot + 1) / (2 * kHotfixEditsPerFile) - kEditBytes / 2;
                patched.replace(at, kEditBytes, fresh(binary, kEditBytes, random));
            }
        }
        QByteArray engineBytes = patched;
        if (i % 3 == 1 && inserted < kInsertedFiles) {
            engineBytes.insert(perFile / 2, fresh(binary, kInsertedBytes, random));
            ++inserted;
        }
        const QString name = QLatin1Char('/') + fileName(i);
        if (!PatchedBuilds::write(base + name, bytes) || !PatchedBuilds::write(hotfix + name, patched) ||
            !PatchedBuilds::write(engine + name, engineBytes))
            return made;
        written += bytes.size();
    }

    std::mt19937_64 notes(7);
    const QByteArray added = PatchedBuilds::noise(5 * kMiB / 2, notes) + PatchedBuilds::text(5 * kMiB / 2, notes);
    for (const QString& root : {hotfix, engine}) {
        if (!PatchedBuilds::write(root + QStringLiteral("/data/patch-notes.bin"), added) ||
            !link(QStringLiteral("levels01.txt"), root + QStringLiteral("/data/latest")))
            return made;
    }
    if (!link(QStringLiteral("levels00.txt"), base + QStringLiteral("/data/current")))
        return made;

    QByteArray content = packContent(packContentBytes, random);
    if (!writeGzip(base + QLatin1Char('/') + kPack, content) || !writeGzip(hotfix + QLatin1Char('/') + kPack, content))
        return made;
    const qint64 spotBytes = packContentBytes * 36 / 1000 / kPackSpots;
    for (int spot = 0; spot < kPackSpots; ++spot) {
        const qint64 at = packContentBytes * (2 * spot + 1) / (2 * kPackSpots);
        content.replace(at, spotBytes, fresh(binaryAt(at), spotBytes, random));
    }
    if (!writeGzip(engine + QLatin1Char('/') + kPack, content))
        return made;
    made.packBytes = QFile(base + QLatin1Char('/') + kPack + QStringLiteral(".gz")).size();
    made.buildBytes = written + made.packBytes + QFile(base + QStringLiteral("/zentho")).size();
    return made;
}

} // namespace PatchPairs
