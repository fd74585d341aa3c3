// What an update costs the player through chunks next to its archive, press to game: the real
// launcher of this build, started as for an invite link (the press), updates a game from 0.3.0 to
// 0.3.1 on a real nginx over loopback HTTPS, timed until the stand-in game of 0.3.1 writes its
// record; nginx's access log tells what was sent.
//
// The builds are BenchChunkStore's (same generator and seed: half bytes that do not compress,
// half text-like; 0.3.1 changes 1 % of the bytes in 20 files and adds a 5 MiB file), plus empty
// folders, a private file and a symlink 0.3.1 points elsewhere, so that comparing the installed
// trees covers every kind of entry. Both are packed with the real zentho-release into one store.
// The launcher installs 0.3.0 itself (a first install, from its pack, keeping its index); each run
// starts from a copy of that storage at the same path, since a kept index names the folder of its
// build.
//
//   A  the 0.3.1 manifest without "chunks": the archive at 50 MiB/s (nginx limit_rate 50m)
//   B  the same with "chunks": the index and the pack at 50 MiB/s a request; the launcher asks
//      for every chunk 0.3.0 lacks in a request or two of many ranges
//   BS as B without the pack: a request a chunk from the store, each at 8 MiB/s, 6 at a time
//   C  as B without the kept indexes: the launcher reads 0.3.0 to find its chunks
//   D  a press with 0.3.1 already in place: what every press costs besides the install
//   FA a first install of 0.3.1 on an empty storage from its archive through one 50 MiB/s link
//   FC the same from its pack, through the same link: a DelayProxy whose rate all connections
//      share, as on a real link (nginx's limit_rate is per request); beside time and bytes, the
//      most the storage took on the disk during each (its file system's use, sampled every few
//      milliseconds) against the build's own size, and how long the link stood idle while the
//      launcher was connected. Both next door and a round trip of 100 ms away
//   R  one file of 0.3.1 damaged over 8 MiB and put right by the launcher's --repair, from the pack
//   L  FC, B and BS again through a relay without a rate that adds no delay, then 50 ms each way
//      (a round trip of 100 ms): the round trips each waited for, (time at 100 ms - time at 0) / 0.1 s
//
// Exit status 0 when every goal printed is met, 2 when one is not, 1 when a run failed, B or FC
// fell back to the archive or the installed trees differ.
//
//   BenchChunkedUpdate          a 1 GiB build, B three times, then the pairs below (16384z)
//   BenchChunkedUpdate 256 1    another size in MiB, and how often B runs, without the pairs
//   BenchChunkedUpdate pairs    the hotfix and engine-patch pairs instead (PatchPairBench.cpp);
//                               `pairs 1024 0 16384z`: a size in MiB, then chunk averages (0: the
//                               default), "z" for a compressed index

#include "BenchPress.h"
#include "BenchReleases.h"
#include "RepairBench.h"
#include "DelayProxy.h"
#include "LauncherBundles.h"
#include "PatchPairBench.h"
#include "PatchedBuilds.h"
#include "RealLauncher.h"
#include "ReleaseTool.h"
#include "TestServer.h"
#include "TreeSnapshot.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QThread>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <random>

#include <sys/stat.h>

namespace {

const qint64 kMiB = 1024 * 1024;
const QString kNew = QStringLiteral("0.3.1");

// Entries other than 0644 files and 0755 folders, for the tree comparison to see.
bool addOtherKinds(const QString& root, const QString& linkTarget) {
    std::mt19937_64 random(11);
    const QString config = root + QStringLiteral("/config");
    return QDir().mkpath(root + QStringLiteral("/saves/slots")) && QDir().mkpath(config) &&
           PatchedBuilds::write(config + QStringLiteral("/user.cfg"), PatchedBuilds::text(4096, random)) &&
           QFile::setPermissions(config + QStringLiteral("/user.cfg"), QFile::ReadOwner | QFile::WriteOwner) &&
           QFile::setPermissions(config, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner |
                                             QFile::ReadGroup | QFile::ExeGroup) &&
           QFile::link(linkTarget, root + QStringLiteral("/data/current"));
}

// BenchChunkStore's builds, and entries other than 0644 files and 0755 folders; returns the bytes
// changed in existing files, or -1.
qint64 makeBuilds(const QString& old, const QString& next, qint64 total) {
    const qint64 changed = PatchedBuilds::make(old, next, total);
    if (changed < 0 || !addOtherKinds(old, QStringLiteral("levels00.txt")) ||
        !addOtherKinds(next, QStringLiteral("levels01.txt")))
        return -1;
    return changed;
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QElapsedTimer wall;
    wall.start();
    if (argc > 1 && qstrcmp(argv[1], "pairs") == 0) {
        if (qEnvironmentVariableIsEmpty("ZENTHO_BUILD_DIR"))
            qputenv("ZENTHO_BUILD_DIR", QFile::encodeName(QCoreApplication::applicationDirPath() + QStringLiteral("/..")));
        QStringList runs;
        for (int i = 3; i < argc; ++i)
            runs << QString::fromLatin1(argv[i]);
        const int status = benchPatchPairs((argc > 2 ? std::max(256LL, QByteArray(argv[2]).toLongLong()) : 1024) * kMiB,
                                           runs.isEmpty() ? QStringList{QStringLiteral("0")} : runs);
        std::printf("bench wall time: %.0f s\n", double(wall.elapsed()) / 1000);
        return status;
    }
    const qint64 total = (argc > 1 ? QByteArray(argv[1]).toLongLong() : 1024) * kMiB;
    const int chunkRounds = argc > 2 ? std::max(1, QByteArray(argv[2]).toInt()) : 3;
    if (total < 64 * kMiB) {
        std::fprintf(stderr, "usage: BenchChunkedUpdate [MiB, at least 64] [runs of B]\n");
        return 2;
    }
    if (qEnvironmentVariableIsEmpty("ZENTHO_BUILD_DIR"))
        qputenv("ZENTHO_BUILD_DIR", QFile::encodeName(QCoreApplication::applicationDirPath() + QStringLiteral("/..")));
    for (const QString& needed : {LauncherBundles::releaseTool(), ReleaseTool::standinGame020(),
                                  RealLauncher::executableOf(LauncherBundles::builtBundle())}) {
        if (!QFileInfo(needed).isExecutable()) {
            std::fprintf(stderr, "%s is missing: build the bench target\n", qPrintable(needed));
            return 1;
        }
    }
    QTemporaryDir work(QDir::tempPath() + QStringLiteral("/BenchChunkedUpdate-XXXXXX"));
    const auto at = [&](const char* name) { return work.filePath(QString::fromLatin1(name)); };
    const QString data = at("data"), pristine = at("pristine"), record = at("record"), store = at("store");
    const QString root = data + QStringLiteral("/Zentho/launcher");
    const qint64 changed = work.isValid() ? makeBuilds(at("game-0.3.0"), at("game-0.3.1"), total) : -1;
    if (changed < 0 || !RealLauncher::becomeSubreaper()) {
        std::fprintf(stderr, "cannot write the builds in %s\n", qPrintable(work.path()));
        return 1;
    }
    std::printf("working folder: %s\n", qPrintable(work.path()));
    std::printf("build: %lld MiB (half incompressible, half text-like); 0.3.1 changes %lld bytes in %d files "
                "(%.2f %%), adds a 5 MiB file and points a symlink elsewhere\n",
                total / kMiB, changed, PatchedBuilds::kChangedFiles, 100.0 * double(changed) / double(total));

    TestServer server;
    QFile::link(store, server.documentRoot() + QStringLiteral("/chunks"));
    const Release first = packRelease(server, at("game-0.3.0"), QStringLiteral("0.3.0"), at("out-0.3.0"), store, QStringLiteral("/builds"));
    const Release second = packRelease(server, at("game-0.3.1"), kNew, at("out-0.3.1"), store, QStringLiteral("/rate50m/builds"));
    if (first.archiveBytes < 0 || second.archiveBytes < 0)
        return 1;
    std::printf("pack 0.3.0: %.1f s, chunks %s; pack 0.3.1 into the same store: %.1f s, chunks %s, new chunk bytes %lld\n",
                first.seconds, qPrintable(first.chunks), second.seconds, qPrintable(second.chunks), second.newChunkBytes);
    std::printf("archive 0.3.1: %lld bytes; index 0.3.1: %lld bytes\n", second.archiveBytes, QFileInfo(second.index).size());

    // 0.3.0 through the launcher, as a player gets it: a first install, from its chunks, its index kept.
    const Press installed = press(server, data, serveRelease(server, first, QStringLiteral("0.3.0.json"), Offer::pack), record,
                                  QStringLiteral("0.3.0"));
    const qsizetype kept = QDir(root + QStringLiteral("/indexes")).entryList({QStringLiteral("*.json")}, QDir::Files).size();
    if (installed.cwd != root + QStringLiteral("/versions/0.3.0") || kept != 1 || !QDir().rename(data, pristine)) {
        std::fprintf(stderr, "0.3.0 was not installed with its index kept (game in \"%s\", %lld indexes kept): %s\n",
                     qPrintable(installed.cwd), qlonglong(kept), installed.errors.constData());
        return 1;
    }
    std::printf("first install of 0.3.0 (from its pack, no rate): press->game %.2f s, index kept\n\n",
                installed.seconds);

    const QString archiveManifest = serveRelease(server, second, QStringLiteral("0.3.1-archive.json"), Offer::archive);
    const QString chunksManifest = serveRelease(server, second, QStringLiteral("0.3.1-chunks.json"), Offer::pack);
    const QString storeManifest = serveRelease(server, second, QStringLiteral("0.3.1-store.json"), Offer::store);
    const QString expected = root + QStringLiteral("/versions/") + kNew;
    bool allRan = true;
    const auto runOnce = [&](const QString& manifest, bool fromPristine, bool withoutIndexes, bool snapshot,
                             bool fromNothing = false) {
        Run run;
        if ((fromPristine && !restore(pristine, data)) ||
            (withoutIndexes && !QDir(root + QStringLiteral("/indexes")).removeRecursively()) ||
            (fromNothing && !QDir(data).removeRecursively()))
            allRan = false;
        const int from = logLines(server);
        run.press = press(server, data, manifest, record, kNew);
        run.traffic = trafficSince(server, from);
        if (run.press.cwd != expected || run.press.exit != std::optional<int>(0)) {
            std::fprintf(stderr, "the update did not start 0.3.1 (game in \"%s\", exit %d): %s\n",
                         qPrintable(run.press.cwd), run.press.exit.value_or(-1), run.press.errors.constData());
            allRan = false;
        }
        if (snapshot)
            run.tree = TreeSnapshot::of(expected);
        return run;
    };
    // First installs of 0.3.1 on an empty storage, both through one link of 50 MiB/s that all
    // their connections share, next door and then a round trip of 100 ms away.
    const quint16 nginxPort = quint16(server.url(QStringLiteral("/")).port());
    // How often, and how long together, the link stood idle during a run while it was connected.
    struct LinkIdle {
        int pauses = 0;
        double seconds = 0;
    };
    struct FirstInstalls {
        int oneWayMs;
        Run archive, chunks;
        LinkIdle archiveIdle = {}, chunksIdle = {};
    };
    QList<FirstInstalls> firsts{{0, {}, {}}, {50, {}, {}}};
    for (FirstInstalls& first : firsts) {
        DelayProxy link(nginxPort, std::chrono::milliseconds(first.oneWayMs), std::uint64_t(50 * kMiB));
        const auto through = [&](const QString& name, Offer offer, LinkIdle& idle) {
            const int pauses = link.pauses();
            const auto paused = link.paused();
            const Run run = runOnce(serveRelease(server, second, name + QStringLiteral("-%1ms.json").arg(first.oneWayMs),
                                                 offer, link.port()),
                                    false, false, true, true);
            idle = {link.pauses() - pauses, std::chrono::duration<double>(link.paused() - paused).count()};
            return run;
        };
        first.archive = through(QStringLiteral("0.3.1-first-archive"), Offer::archive, first.archiveIdle);
        first.chunks = through(QStringLiteral("0.3.1-first-chunks"), Offer::pack, first.chunksIdle);
    }
    const Run& firstArchive = firsts[0].archive;
    const Run& firstChunks = firsts[0].chunks;
    // The cost of latency: the same first install from the pack and the patch B, from the pack and
    // from the store alone, through a relay without a rate, adding nothing and then 50 ms each way,
    // a round trip of 100 ms.
    struct Latency {
        int oneWayMs;
        Run first, patch, storePatch;
        int connections;
    };
    QList<Latency> latencies{{0, {}, {}, {}, 0}, {50, {}, {}, {}, 0}};
    for (Latency& latency : latencies) {
        DelayProxy link(nginxPort, std::chrono::milliseconds(latency.oneWayMs));
        const QString suffix = QStringLiteral("-%1ms.json").arg(latency.oneWayMs);
        latency.first = runOnce(serveRelease(server, second, QStringLiteral("0.3.1-first") + suffix, Offer::pack, link.port()),
                                false, false, false, true);
        latency.patch = runOnce(serveRelease(server, second, QStringLiteral("0.3.1-patch") + suffix, Offer::pack, link.port()),
                                true, false, false);
        latency.storePatch = runOnce(
            serveRelease(server, second, QStringLiteral("0.3.1-store-patch") + suffix, Offer::store, link.port()), true,
            false, false);
        latency.connections = link.connections();
    }
    const Run a = runOnce(archiveManifest, true, false, true);
    QList<Run> bs;
    for (int i = 0; i < chunkRounds; ++i)
        bs << runOnce(chunksManifest, true, false, i == 0);
    const Run bStore = runOnce(storeManifest, true, false, true);
    const Run c = runOnce(chunksManifest, true, true, true);
    const Run d = runOnce(chunksManifest, false, false, false);
    const RepairRun repair = repairDamagedFile(server, data, chunksManifest, kNew, 8 * kMiB);
    if (!allRan)
        return 1;

    QList<double> times;
    for (const Run& b : bs)
        times << b.press.seconds;
    std::sort(times.begin(), times.end());
    const double bSeconds = times[times.size() / 2];
    const Run& b = bs.first();
    std::printf("A   archive, nginx limit_rate 50m (50 MiB/s)\n");
    printRun(QStringLiteral("A"), a);
    std::printf("B   chunks from the pack: the index and the pack under limit_rate 50m (50 MiB/s a request)\n");
    for (int i = 0; i < bs.size(); ++i)
        printRun(QStringLiteral("B%1").arg(i + 1), bs[i]);
    std::printf("BS  chunks from the store alone, a request a chunk, each under limit_rate 8m, 6 at a time "
                "(informational)\n");
    printRun(QStringLiteral("BS"), bStore);
    std::printf("C   as B without the kept indexes: the launcher reads 0.3.0 to find its chunks (informational)\n");
    printRun(QStringLiteral("C"), c);
    std::printf("D   press with 0.3.1 already in place (informational)\n");
    printRun(QStringLiteral("D"), d);
    // The chunks had the link from about when the first was kept until the staging folder, which
    // the launcher makes once the last is in.
    for (int i = 0; i < bs.size(); ++i) {
        const double firstChunk = stepAt(bs[i].press, "first chunk kept");
        const double span = stepAt(bs[i].press, "staging made") - firstChunk;
        if (firstChunk > 0 && span > 0)
            std::printf("B%d chunks came at %.1f MiB/s together (first kept to staging made: %.2f s)\n", i + 1,
                        double(bs[i].traffic.chunks.bytes) / kMiB / span, span);
    }
    std::printf("\n");

    std::printf("L   round trips: the first install from the pack (FC), the patch from the pack (B) and from the "
                "store alone (BS) through a relay without a rate, at round trips of 0 and 100 ms\n");
    for (const Latency& latency : latencies) {
        const QString rtt = QString::number(2 * latency.oneWayMs);
        printRun(QStringLiteral("FC") + rtt, latency.first);
        printRun(QStringLiteral("B") + rtt, latency.patch);
        printRun(QStringLiteral("BS") + rtt, latency.storePatch);
        std::printf("    round trip %s ms: %d connections through the relay for the three\n", qPrintable(rtt),
                    latency.connections);
    }
    const auto roundTrips = [&](Run Latency::*run) {
        return ((latencies[1].*run).press.seconds - (latencies[0].*run).press.seconds) / 0.1;
    };
    const double patchTrips = roundTrips(&Latency::patch);
    std::printf("round trips waited for, (time at 100 ms - time at 0) / 0.1 s: first install from the pack %.1f, "
                "patch from the pack %.1f (goal <= 8: %s), patch from the store alone %.1f\n\n",
                roundTrips(&Latency::first), patchTrips, patchTrips <= 8 ? "met" : "NOT MET",
                roundTrips(&Latency::storePatch));

    // The first installs side by side, against the archive alone at 50 MiB/s.
    const double archiveAlone = double(second.archiveBytes) / double(50 * kMiB);
    std::printf("first install of 0.3.1 through one 50 MiB/s link (a DelayProxy with that rate shared by all its "
                "connections) on an empty storage, next door (0) and a round trip of 100 ms away (100); the archive "
                "alone takes %.2f s at that rate\n",
                archiveAlone);
    std::printf("%-14s %12s %8s %14s %8s %9s %14s %10s\n", "", "press->game", "/alone", "bytes fetched", "/archive",
                "requests", "peak disk", "/build");
    const qint64 buildSize = diskUse(expected);
    bool firstAsked = false;
    struct Row {
        const char* name;
        const Run* run;
        const LinkIdle* idle;
    };
    for (const auto& [name, run, idle] : {Row{"FA0 archive", &firstArchive, &firsts[0].archiveIdle},
                                          Row{"FC0 pack", &firstChunks, &firsts[0].chunksIdle},
                                          Row{"FA100 archive", &firsts[1].archive, &firsts[1].archiveIdle},
                                          Row{"FC100 pack", &firsts[1].chunks, &firsts[1].chunksIdle}}) {
        const Traffic& t = run->traffic;
        const qint64 bytes = t.archive.bytes + t.index.bytes + t.chunks.bytes;
        std::printf("%-14s %10.2f s %8.3f %14lld %8.3f %9d %12lld B %10.3f\n", name, run->press.seconds,
                    run->press.seconds / archiveAlone, bytes, double(bytes) / double(second.archiveBytes),
                    t.archive.requests + t.index.requests + t.chunks.requests, run->press.peakDisk,
                    double(run->press.peakDisk) / double(buildSize));
        if (run == &firstChunks || run == &firsts[1].chunks)
            firstAsked = firstAsked || t.archive.requests > 0;
        QString steps;
        for (const auto& [sign, at] : run->press.signs)
            steps += QStringLiteral("%1 %2 s, ").arg(sign).arg(at, 0, 'f', 2);
        std::printf("    steps: %sgame running %.2f s; at the peak the chunk cache held %lld B; the link stood idle "
                    "%d times over %lld ms while connected, %.2f s together\n",
                    qPrintable(steps), run->press.seconds, run->press.peakChunks, idle->pauses,
                    qlonglong(DelayProxy::kPause.count()), idle->seconds);
    }
    const qint64 fcBytes = firstChunks.traffic.index.bytes + firstChunks.traffic.chunks.bytes;
    const double fcRatio = firstChunks.press.seconds / archiveAlone;
    const double farRatio = firsts[1].chunks.press.seconds / archiveAlone;
    // A first install a round trip away reaches the line's speed when it waits for no more round
    // trips than a patch may: the same figure as the round trips above, on the shared link.
    const double farTrips = (firsts[1].chunks.press.seconds - firstChunks.press.seconds) / 0.1;
    const bool firstSame = std::all_of(firsts.cbegin(), firsts.cend(), [&](const FirstInstalls& first) {
        return first.archive.tree == a.tree && first.chunks.tree == a.tree;
    });
    std::printf("FC press->game / archive alone: %.3f (goal <= 1.05: %s); FC bytes / archive: %.3f (goal <= 1: %s); "
                "FC peak disk / build on disk (%lld B): %.3f; FC asked for the archive: %s\n",
                fcRatio, fcRatio <= 1.05 ? "met" : "NOT MET", double(fcBytes) / double(second.archiveBytes),
                fcBytes <= second.archiveBytes ? "met" : "NOT MET", buildSize,
                double(firstChunks.press.peakDisk) / double(buildSize), firstAsked ? "YES (fell back)" : "no");
    std::printf("FC100 press->game / archive alone: %.3f; round trips it waited for more than FC0, (FC100 - FC0) / "
                "0.1 s: %.1f (at the line's speed a round trip away, goal <= 8: %s)\n",
                farRatio, farTrips, farTrips <= 8 ? "met" : "NOT MET");
    std::printf("installed 0.3.1 of FA, FC (both at 0 and 100 ms) and A (contents, kinds, modes, symlinks, folders, times): %s\n\n",
                firstSame ? "identical" : "DIFFERENT");

    const qint64 bBytes = b.traffic.index.bytes + b.traffic.chunks.bytes;
    const double byteShare = double(bBytes) / double(second.archiveBytes);
    const double timeRatio = bSeconds / a.press.seconds;
    const bool noArchive = std::all_of(bs.cbegin(), bs.cend(), [](const Run& r) { return r.traffic.archive.requests == 0; });
    const QStringList aTree = withoutTimes(a.tree);
    const bool sameTree = aTree == withoutTimes(b.tree) && aTree == withoutTimes(c.tree) &&
                          aTree == withoutTimes(bStore.tree);
    qsizetype timesDiffer = 0;
    for (qsizetype i = 0; i < a.tree.size(); ++i)
        timesDiffer += a.tree[i] != b.tree.value(i) ? 1 : 0;
    std::printf("B bytes / archive 0.3.1: %lld / %lld = %.2f %% (goal <= 3 %%: %s)\n", bBytes, second.archiveBytes,
                100 * byteShare, byteShare <= 0.03 ? "met" : "NOT MET");
    std::printf("B time / A time: %.2f s (median of %lld) / %.2f s = %.3f (goal <= 0.15: %s)\n", bSeconds,
                qlonglong(times.size()), a.press.seconds, timeRatio, timeRatio <= 0.15 ? "met" : "NOT MET");
    std::printf("B asked for the archive: %s\n", noArchive ? "no" : "YES (fell back)");
    std::printf("installed 0.3.1 of A, B, BS and C (%lld entries; contents, kinds, modes, symlinks, folders): %s\n",
                qlonglong(a.tree.size()), sameTree ? "identical" : "DIFFERENT");
    std::printf("file modification times, A against B: %lld entries differ (tar and the chunk index both carry "
                "the build's)\n",
                qlonglong(timesDiffer));
    std::printf("C (no kept index) press->game: %.2f s, %.2f x B\n", c.press.seconds, c.press.seconds / bSeconds);
    for (const Run* other : {&b, &c}) {
        const QStringList tree = withoutTimes(other->tree);
        for (qsizetype i = 0; i < std::max(aTree.size(), tree.size()); ++i) {
            if (aTree.value(i) != tree.value(i))
                std::fprintf(stderr, "A: %s\n%s: %s\n", qPrintable(aTree.value(i)), other == &b ? "B" : "C",
                             qPrintable(tree.value(i)));
        }
    }
    std::printf("R   repair of %s (%lld bytes damaged from its start; no other build to take chunks from), "
                "chunks from the release's pack (kept beside the index) under limit_rate 50m: %.2f s, %lld bytes in %d "
                "requests; \"%s\" (exit %d); "
                "--verify afterwards: %s\n",
                qPrintable(repair.file), repair.damaged, repair.seconds, repair.traffic.total(), repair.traffic.requests(),
                qPrintable(repair.output), repair.exitCode, repair.whole ? "whole" : "DAMAGED");
    const int updates = !noArchive || !sameTree || firstAsked || !firstSame || repair.exitCode != 0 || !repair.whole ? 1
                        : byteShare <= 0.03 && timeRatio <= 0.15 && fcRatio <= 1.05 && farTrips <= 8 &&
                                patchTrips <= 8 && fcBytes <= second.archiveBytes
                            ? 0
                            : 2;
    // Run without arguments, the hotfix and engine-patch pairs follow in the same run, packed as
    // their goals were set: 16 KiB chunks, the index compressed, deltas against the base.
    const int pairs = argc > 1 ? 0 : benchPatchPairs(total, {QStringLiteral("16384z")});
    std::printf("bench wall time: %.0f s\n", double(wall.elapsed()) / 1000);
    return updates == 1 || pairs == 1 ? 1 : std::max(updates, pairs);
}
