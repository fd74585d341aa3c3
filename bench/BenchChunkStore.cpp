// What a patch costs with a chunk store next to the whole archive. One run generates a game build
// 0.3.0 (half bytes that do not compress, like packed assets, half text-like data), derives 0.3.1
// from it (about 1 % of the bytes changed, scattered over 20 files in place and by insertion,
// plus one new 5 MiB file), packs both with the real zentho-release into one chunk store and
// prints the bytes of chunks 0.3.1 added to the store (compressed, what a launcher holding 0.3.0
// fetches) against the size of the 0.3.1 archive (what it fetches without chunks).
//
// Then, side by side, the same figure for other chunk averages (min = average / 4,
// max = average * 4), cut in this process with the same chunker and compression, with the
// number of chunks and the index size each needs: the measurement behind the default sizes.
//
//   BenchChunkStore          a 1 GiB build
//   BenchChunkStore 256      another size, in MiB

#include "LauncherBundles.h"
#include "PatchedBuilds.h"
#include "ReleaseTool.h"

#include "formats/ChunkStore.h"
#include "formats/TreeChunker.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QSet>
#include <QTemporaryDir>

#include <cstdio>
#include <cstring>
#include <random>

namespace {

const qint64 kMiB = 1024 * 1024;

struct Packed {
    qint64 archiveBytes = -1;
    qint64 newChunkBytes = -1;
    qint64 indexBytes = -1;
    QString chunks;
    double seconds = 0;
};

Packed pack(const QString& source, const QString& version, const QString& out, const QString& store) {
    QElapsedTimer timer;
    timer.start();
    const ReleaseTool::Run run = ReleaseTool::packGame(
        source, version, QStringLiteral("https://cdn.example.invalid/builds"), out,
        {QStringLiteral("--chunks"), store, QStringLiteral("--chunks-url"), QStringLiteral("https://cdn.example.invalid/chunks")},
        30 * 60 * 1000);
    Packed packed;
    packed.seconds = double(timer.elapsed()) / 1000;
    if (!run.ok()) {
        std::fprintf(stderr, "pack %s failed (status %d): %s\n", qPrintable(version), run.exitCode, run.errors.constData());
        return packed;
    }
    packed.archiveBytes = run.line(QStringLiteral("size")).toLongLong();
    packed.newChunkBytes = run.line(QStringLiteral("new chunk bytes")).section(QLatin1Char(' '), 0, 0).toLongLong();
    packed.chunks = run.line(QStringLiteral("chunks"));
    packed.indexBytes = QFileInfo(run.line(QStringLiteral("index"))).size();
    return packed;
}

// The compressed bytes of the chunks of `next` that `old` does not have, cut with `sizes`.
struct Cut {
    qint64 newBytes = 0;
    qint64 chunks = 0;
    qint64 indexBytes = 0;
};

Cut cutWith(const QString& old, const QString& next, const ChunkSizes& sizes) {
    QSet<QString> known;
    TreeChunker::index(old, sizes, [&](const ChunkIndexEntry&, const ChunkRef& chunk, std::uint64_t, const unsigned char*,
                                       std::size_t) { known.insert(chunk.sha256); });
    Cut cut;
    const ChunkIndex index = TreeChunker::index(
        next, sizes,
        [&](const ChunkIndexEntry&, const ChunkRef& chunk, std::uint64_t, const unsigned char* data, std::size_t size) {
            ++cut.chunks;
            if (known.contains(chunk.sha256))
                return;
            known.insert(chunk.sha256);
            cut.newBytes += ChunkStore::compress(reinterpret_cast<const char*>(data), size).size();
        });
    cut.indexBytes = index.encode().size();
    return cut;
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const qint64 total = (argc > 1 ? QByteArray(argv[1]).toLongLong() : 1024) * kMiB;
    if (total < 64 * kMiB) {
        std::fprintf(stderr, "usage: BenchChunkStore [MiB, at least 64]\n");
        return 2;
    }
    if (!QFileInfo::exists(LauncherBundles::releaseTool())) {
        std::fprintf(stderr, "build zentho-release and zentho-standin-0.2.0 first\n");
        return 1;
    }
    QTemporaryDir tmp;
    const QString old = tmp.filePath(QStringLiteral("zentho-0.3.0"));
    const QString next = tmp.filePath(QStringLiteral("zentho-0.3.1"));
    const QString store = tmp.filePath(QStringLiteral("store"));
    const qint64 changed = PatchedBuilds::make(old, next, total);
    if (changed < 0) {
        std::fprintf(stderr, "cannot write the builds in %s\n", qPrintable(tmp.path()));
        return 1;
    }
    std::printf("build: %lld MiB (half incompressible, half text-like)\n", total / kMiB);
    std::printf("changed: %lld bytes in %d files (%.2f %% of the build), and a new 5 MiB file\n", changed,
                PatchedBuilds::kChangedFiles, 100.0 * double(changed) / double(total));

    const Packed first = pack(old, QStringLiteral("0.3.0"), tmp.filePath(QStringLiteral("out-0.3.0")), store);
    const Packed second = pack(next, QStringLiteral("0.3.1"), tmp.filePath(QStringLiteral("out-0.3.1")), store);
    if (first.archiveBytes < 0 || second.archiveBytes < 0)
        return 1;
    std::printf("pack 0.3.0 into an empty store: %.1f s (chunks %s)\n", first.seconds, qPrintable(first.chunks));
    std::printf("pack 0.3.1 into the same store: %.1f s (chunks %s)\n", second.seconds, qPrintable(second.chunks));
    std::printf("archive 0.3.1: %lld bytes\n", second.archiveBytes);
    std::printf("new chunks for 0.3.1: %lld bytes (compressed)\n", second.newChunkBytes);
    const double ratio = double(second.newChunkBytes) / double(second.archiveBytes);
    std::printf("patch / archive: %.2f %% (goal <= 3 %%: %s)\n", 100 * ratio, ratio <= 0.03 ? "met" : "NOT MET");
    std::printf("index 0.3.1: %lld bytes; patch and index / archive: %.2f %%\n", second.indexBytes,
                100.0 * double(second.newChunkBytes + second.indexBytes) / double(second.archiveBytes));

    std::printf("\nchunk average: patch / archive, chunks in 0.3.1, index bytes\n");
    for (const std::size_t average : {32 * 1024, 64 * 1024, 128 * 1024, 256 * 1024, 512 * 1024}) {
        const ChunkSizes sizes{average / 4, average, average * 4};
        const Cut cut = cutWith(old, next, sizes);
        std::printf("average %4zu KiB%s: %.2f %%, %lld chunks, %lld index bytes\n", average / 1024,
                    sizes == kDefaultChunkSizes ? " (default)" : "",
                    100.0 * double(cut.newBytes) / double(second.archiveBytes), cut.chunks, cut.indexBytes);
    }
    return ratio <= 0.03 ? 0 : 1;
}
