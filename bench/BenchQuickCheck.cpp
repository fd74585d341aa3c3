// What the look at a saved build before every start costs: the kept index read and decoded and
// every entry lstat'ed (quickBuildCheck), against the full check --verify makes (every byte
// hashed), on a build of the shape of a large game: many files in nested folders, about 1 GiB in
// all. Files are sparse (the quick check reads no byte, and the disk of these machines is shared);
// the index has the format, entry count and chunk count a release of that size has, its chunk
// names made up. The full check of sparse files hashes zeros from the page cache, so its figure is
// a lower bound.
//
//   BenchQuickCheck              20,000 files, 1 GiB, 9 runs (the median is printed)
//   BenchQuickCheck 80000 4096 5 other file count, MiB, runs

#include "storage/BuildCheck.h"
#include "storage/BuildIndexes.h"
#include "storage/QuickBuildCheck.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>

namespace {

QString fakeDigest(qint64 n) {
    return QString::fromLatin1(QCryptographicHash::hash(QByteArray::number(n), QCryptographicHash::Sha256).toHex());
}

ChunkIndexEntry entry(const QString& path, ChunkIndexEntry::Kind kind, int mode, qint64 size = 0) {
    ChunkIndexEntry made;
    made.path = path;
    made.kind = kind;
    made.mode = mode;
    made.size = size;
    return made;
}

ChunkIndex makeBuild(const QString& build, int files, qint64 bytes) {
    ChunkIndex index;
    const qint64 fileSize = bytes / files;
    const qint64 chunkSize = qint64(kDefaultChunkSizes.average);
    // Every file is a hole of the same length, so all have one digest.
    const QString zeros = QString::fromLatin1(
        QCryptographicHash::hash(QByteArray(fileSize, '\0'), QCryptographicHash::Sha256).toHex());
    qint64 chunkNumber = 0;
    for (int folder = 0; folder * 100 < files; ++folder) {
        const QString name = QStringLiteral("data/pack%1").arg(folder);
        if (folder == 0)
            index.entries.push_back(entry(QStringLiteral("data"), ChunkIndexEntry::Kind::folder, 0755));
        index.entries.push_back(entry(name, ChunkIndexEntry::Kind::folder, 0755));
        QDir().mkpath(build + QLatin1Char('/') + name);
        for (int i = folder * 100; i < std::min(files, (folder + 1) * 100); ++i) {
            ChunkIndexEntry file = entry(name + QStringLiteral("/asset%1.bin").arg(i), ChunkIndexEntry::Kind::file, 0644, fileSize);
            file.sha256 = zeros;
            for (qint64 left = fileSize; left > 0; left -= chunkSize)
                file.chunks.push_back({fakeDigest(chunkNumber++), std::min(left, chunkSize)}); // names unused by a check
            QFile out(build + QLatin1Char('/') + file.path);
            if (!out.open(QIODevice::WriteOnly) || !out.resize(fileSize))
                qFatal("cannot write %s", qPrintable(out.fileName()));
            index.entries.push_back(std::move(file));
        }
    }
    return index;
}

double medianMs(std::vector<double> times) {
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    const int files = args.size() > 1 ? args[1].toInt() : 20000;
    const qint64 mib = args.size() > 2 ? args[2].toLongLong() : 1024;
    const int runs = args.size() > 3 ? args[3].toInt() : 9;

    QTemporaryDir dir;
    const QString root = dir.filePath(QStringLiteral("launcher"));
    const QString build = root + QStringLiteral("/versions/0.3.0");
    const ChunkIndex index = makeBuild(build, files, mib << 20);
    const QByteArray encoded = index.encode();
    if (!BuildIndexes(root).write(build, encoded))
        qFatal("cannot keep the index");

    std::vector<double> quick;
    for (int i = 0; i < runs; ++i) {
        QElapsedTimer timer;
        timer.start();
        const std::optional<std::vector<BuildDamage>> damage = quickBuildCheck(root, build);
        quick.push_back(double(timer.nsecsElapsed()) / 1e6);
        if (!damage || !damage->empty())
            qFatal("the quick check did not find the build whole");
    }
    std::vector<double> decode;
    std::vector<double> lstat;
    for (int i = 0; i < runs; ++i) {
        QElapsedTimer timer;
        timer.start();
        const ChunkIndex decoded = ChunkIndex::decode(encoded);
        decode.push_back(double(timer.nsecsElapsed()) / 1e6);
        timer.start();
        if (!checkBuild(build, decoded, BuildCheckDepth::quick).empty())
            qFatal("the quick check did not find the build whole");
        lstat.push_back(double(timer.nsecsElapsed()) / 1e6);
    }
    QElapsedTimer timer;
    timer.start();
    const std::vector<BuildDamage> full = checkBuild(build, index, BuildCheckDepth::full);
    const double fullMs = double(timer.nsecsElapsed()) / 1e6;
    if (!full.empty())
        qFatal("the full check did not find the build whole");

    std::printf("build_files: %d\n", files);
    std::printf("build_bytes: %lld MiB\n", static_cast<long long>(mib));
    std::printf("index_bytes: %lld bytes\n", static_cast<long long>(encoded.size()));
    std::printf("quick_check_median: %.1f ms\n", medianMs(quick));
    std::printf("of_which_index_decode_median: %.1f ms\n", medianMs(decode));
    std::printf("of_which_lstat_median: %.1f ms\n", medianMs(lstat));
    std::printf("full_check: %.1f ms\n", fullMs);
    std::printf("full_over_quick: %.0f\n", fullMs / medianMs(quick));
    return 0;
}
