// Release day: many real launchers (offscreen, each with its own data home and 0.3.0 installed)
// press the button at once, all updating to 0.3.1 from chunks through a caching edge (nginx
// proxy_cache, the CDN's stand-in) in front of an origin that sends the release server's cache
// headers and takes only so many connections at once (nginx limit_conn: 503 beyond them).
// Every launcher must end with 0.3.1 started or, where it was refused, with 0.3.0 started and
// the download resumable: its next press ends on 0.3.1 without fetching again a chunk it kept,
// and the origin then serves only what it had not served. Prints what each launcher started, the
// time to game, the bytes at the origin and at the edge, how often the origin served each chunk,
// the 503s and the failures.
//
//   BenchReleaseDay [LAUNCHERS=50] [ORIGIN_CONNECTIONS=8] [ORIGIN_RATE]
//
// ORIGIN_RATE (nginx limit_rate, for example 256k) makes the origin send each answer no faster
// during the rush: its connections then stay taken while the rush asks for more, and it refuses
// the rest. The installs before and the next presses after find it quick again.

#include "ChunkTraffic.h"
#include "LauncherBundles.h"
#include "Player.h"
#include "RealLauncher.h"
#include "ReleaseTool.h"
#include "TestFiles.h"
#include "TestServer.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QMap>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QSet>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <numeric>
#include <vector>

namespace {

const QString kNoLauncherUpdate = QStringLiteral("file:///dev/null/no-launcher-manifest.json");

// 64 MiB in 64 files; 0.3.1 rewrites 64 KiB in each of 16 of them and adds a 2 MiB file.
void makeGame(const QString& folder, bool patched) {
    ReleaseTool::makeSmallGame(folder, patched ? QStringLiteral("0.3.1") : QStringLiteral("0.3.0"));
    for (int i = 0; i < 64; ++i) {
        QByteArray bytes = TestFiles::randomBytes(1 << 20, quint32(100 + i));
        if (patched && i % 4 == 0)
            bytes.replace(300000, 65536, TestFiles::randomBytes(65536, quint32(900 + i)));
        TestFiles::writeFile(folder + QStringLiteral("/data/pack%1.bin").arg(i), bytes);
    }
    if (patched)
        TestFiles::writeFile(folder + QStringLiteral("/data/new.bin"), TestFiles::randomBytes(2 << 20, 77));
}

struct LogTotals {
    qint64 bytes = 0;
    int unavailable = 0;                // answers 503
    QMap<QString, int> chunkGets;       // GETs answered 200, by chunk path
};

LogTotals totalsOf(const QString& log) {
    LogTotals totals;
    for (const ChunkTraffic::Get& get : ChunkTraffic::getsIn(log)) {
        totals.bytes += get.bytes;
        if (get.status == 503)
            ++totals.unavailable;
        if (get.status == 200 && get.path.startsWith(QLatin1String("/chunks/")))
            ++totals.chunkGets[get.path];
    }
    return totals;
}

double percentile(std::vector<double> values, double share) {
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    return values[std::min(values.size() - 1, std::size_t(share * double(values.size())))];
}

QString versionStartedIn(const QByteArray& record) {
    return QFileInfo(RealLauncher::recordedFolder(record)).fileName();
}

// The chunks a launcher kept from an interrupted update (chunks/<sha256>).
QSet<QString> keptChunks(const LauncherStorage& storage) {
    const QStringList names = QDir(storage.chunks()).entryList(QDir::Files);
    return {names.cbegin(), names.cend()};
}

// The bytes of a download a launcher left in downloads/ to resume.
qint64 downloadedBytes(const LauncherStorage& storage) {
    qint64 bytes = 0;
    for (const QFileInfo& file : QDir(storage.downloads()).entryInfoList(QDir::Files | QDir::Hidden))
        bytes += file.size();
    return bytes;
}

// What one launcher did on release day, and on its next press when the rush held it back.
struct Outcome {
    QString started = QStringLiteral("nothing");
    double seconds = -1;
    int kept = 0;            // chunks it kept when held back
    qint64 downloaded = 0;   // bytes of the archive it left to resume when held back
    QString next;            // what its next press started; empty when it was not held back
    int fetchedNext = 0;     // chunks its next press fetched
    int fetchedAgain = 0;    // of them, chunks it had kept
    bool resumed() const { return next == QLatin1String("0.3.1") && fetchedAgain == 0; }
};

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const int launchers = argc > 1 ? std::max(1, std::atoi(argv[1])) : 50;
    const int originConnections = argc > 2 ? std::max(1, std::atoi(argv[2])) : 8;
    const QString originRate = argc > 3 ? QString::fromLocal8Bit(argv[3]) : QString();
    if (!ReleaseTool::missingFromTheBuild().isEmpty()) {
        std::fprintf(stderr, "%s\n", qPrintable(ReleaseTool::missingFromTheBuild()));
        return 1;
    }
    QTemporaryDir dir;
    // A launcher may start its game after the bench has stopped watching it (it gave up on one
    // that took too long); no game outlives the bench, whatever way it ends.
    const auto endGames = qScopeGuard([&] {
        for (const qint64 pid : RealLauncher::processesRunningFrom(dir.path()))
            RealLauncher::terminateAndCollect(pid);
    });
    const auto path = [&](const QString& name) { return dir.filePath(name); };
    TestServer server(originConnections, originRate);
    const QString manifest = server.edgeUrl(QStringLiteral("/release/macos-arm64-manifest.json")).toString();
    const auto release = [&](const QString& version, bool patched) {
        makeGame(path(QStringLiteral("game-") + version), patched);
        const ReleaseTool::Run packed = ReleaseTool::packChunkedAndPublish(
            path(QStringLiteral("game-") + version), version,
            {server.edgeUrl(QStringLiteral("/release")).toString(), path(QStringLiteral("out-") + version),
             path(QStringLiteral("store")), server.edgeUrl(QStringLiteral("/chunks")).toString(), server.documentRoot()});
        if (!packed.ok()) {
            std::fprintf(stderr, "publishing %s failed: %s\n", qPrintable(version), packed.errors.constData());
            std::exit(1);
        }
    };

    release(QStringLiteral("0.3.0"), false);
    std::fprintf(stderr, "installing 0.3.0 for %d launchers...\n", launchers);
    for (int i = 0; i < launchers; ++i) {
        const Player player(server, path(QStringLiteral("home-%1").arg(i)), manifest);
        if (player.press() != player.storage().build(QStringLiteral("0.3.0"))) {
            std::fprintf(stderr, "launcher %d did not install 0.3.0\n", i);
            return 1;
        }
    }
    release(QStringLiteral("0.3.1"), true);
    const qsizetype originMark = server.originLog().size();
    const qsizetype edgeMark = server.accessLog().size();

    server.setOriginBusy(true);
    std::fprintf(stderr, "%d launchers press at once...\n", launchers);
    std::vector<std::unique_ptr<RealLauncher>> running;
    QElapsedTimer clock;
    clock.start();
    for (int i = 0; i < launchers; ++i) {
        auto launcher = std::make_unique<RealLauncher>(LauncherBundles::builtBundle(), path(QStringLiteral("home-%1").arg(i)));
        launcher->useManifests(manifest, kNoLauncherUpdate);
        launcher->recordGameStartIn(path(QStringLiteral("record-%1").arg(i)));
        launcher->start(server, QStringLiteral("zentho://invite/release-day"));
        running.push_back(std::move(launcher));
    }
    std::vector<double> timeToGame(static_cast<std::size_t>(launchers), -1.0);
    std::vector<QByteArray> records(static_cast<std::size_t>(launchers));
    int waiting = launchers;
    while (waiting > 0 && clock.elapsed() < 300000) {
        for (int i = 0; i < launchers; ++i) {
            if (!records[std::size_t(i)].isEmpty())
                continue;
            records[std::size_t(i)] = RealLauncher::waitForGameRecord(path(QStringLiteral("record-%1").arg(i)), 0);
            if (!records[std::size_t(i)].isEmpty()) {
                timeToGame[std::size_t(i)] = double(clock.elapsed()) / 1000;
                --waiting;
            }
        }
        QTest::qWait(20);
    }
    std::vector<Outcome> outcomes(static_cast<std::size_t>(launchers));
    std::vector<double> times;
    std::vector<int> heldBack;
    for (int i = 0; i < launchers; ++i) {
        const QByteArray& record = records[std::size_t(i)];
        Outcome& outcome = outcomes[std::size_t(i)];
        if (!record.isEmpty()) {
            outcome.started = versionStartedIn(record);
            outcome.seconds = timeToGame[std::size_t(i)];
            times.push_back(outcome.seconds);
            RealLauncher::terminateAndCollect(RealLauncher::recordedPid(record));
        }
        running[std::size_t(i)]->waitForExit(60000);
        if (outcome.started != QLatin1String("0.3.1"))
            heldBack.push_back(i);
    }
    server.awaitLogged();
    const QString rushOriginLog = server.originLog().mid(originMark);
    const LogTotals origin = totalsOf(rushOriginLog);
    const LogTotals edge = totalsOf(server.accessLog().mid(edgeMark));

    // Those the rush held back press again once it is over, one after the other, so that each
    // one's requests are its own: the update must end on 0.3.1 without fetching a chunk the
    // launcher kept.
    server.setOriginBusy(false);
    const qsizetype catchUpOriginMark = server.originLog().size();
    for (const int i : heldBack) {
        const Player player(server, path(QStringLiteral("home-%1").arg(i)), manifest);
        Outcome& outcome = outcomes[std::size_t(i)];
        const QSet<QString> kept = keptChunks(player.storage());
        outcome.kept = int(kept.size());
        outcome.downloaded = downloadedBytes(player.storage());
        server.awaitLogged();
        const qsizetype mark = server.accessLog().size();
        const QString folder = player.press();
        outcome.next = folder.isEmpty() ? QStringLiteral("nothing") : QFileInfo(folder).fileName();
        server.awaitLogged();
        for (const QString& chunk :
             ChunkTraffic::chunkGets(ChunkTraffic::getsIn(server.accessLog().mid(mark)), QStringLiteral("/chunks"))) {
            ++outcome.fetchedNext;
            outcome.fetchedAgain += kept.contains(chunk);
        }
    }
    server.awaitLogged();
    // The origin, after the rush, serves only chunks it had not served whole.
    const LogTotals catchUp = totalsOf(server.originLog().mid(catchUpOriginMark));
    int servedAgain = 0;
    for (auto it = catchUp.chunkGets.cbegin(); it != catchUp.chunkGets.cend(); ++it)
        servedAgain += origin.chunkGets.contains(it.key()) ? it.value() : 0;

    QMap<QString, int> started;
    int resumed = 0;
    for (int i = 0; i < launchers; ++i) {
        const Outcome& outcome = outcomes[std::size_t(i)];
        ++started[outcome.started];
        if (outcome.next.isEmpty()) {
            std::printf("launcher %2d: %s started after %.2f s\n", i, qPrintable(outcome.started), outcome.seconds);
            continue;
        }
        resumed += outcome.resumed();
        std::printf("launcher %2d: %s started after %.2f s, %d chunks and %lld archive bytes kept; next press: %s "
                    "started, %d chunks fetched, %d of them kept before: %s\n",
                    i, qPrintable(outcome.started), outcome.seconds, outcome.kept, static_cast<long long>(outcome.downloaded),
                    qPrintable(outcome.next), outcome.fetchedNext, outcome.fetchedAgain,
                    outcome.resumed() ? "resumed" : "NOT RESUMED");
    }

    int chunksServedTwice = 0;
    int mostServed = 0;
    for (const int count : origin.chunkGets) {
        chunksServedTwice += count > 1;
        mostServed = std::max(mostServed, count);
    }
    std::printf("launchers: %d pressing at once; origin takes %d connections at once%s%s\n", launchers,
                originConnections, originRate.isEmpty() ? "" : ", sending each answer at ",
                qPrintable(originRate));
    std::printf("time_to_game_s: median %.2f  p95 %.2f  worst %.2f\n", percentile(times, 0.5), percentile(times, 0.95),
                times.empty() ? 0.0 : *std::max_element(times.begin(), times.end()));
    for (auto it = started.cbegin(); it != started.cend(); ++it)
        std::printf("started %s: %d\n", qPrintable(it.key()), it.value());
    std::printf("held back, then on 0.3.1 by the next press without fetching a kept chunk again: %d of %d\n",
                resumed, int(heldBack.size()));
    std::printf("bytes: edge sent %.1f MiB to launchers, origin sent %.1f MiB to the edge (edge/origin %.1f)\n",
                double(edge.bytes) / (1 << 20), double(origin.bytes) / (1 << 20),
                origin.bytes ? double(edge.bytes) / double(origin.bytes) : 0.0);
    std::printf("chunks from the origin: %d distinct, at most %d times each, %d more than once\n",
                int(origin.chunkGets.size()), mostServed, chunksServedTwice);
    std::printf("chunk GETs at the edge: %d; answers 503: origin %d, edge %d\n",
                int(std::accumulate(edge.chunkGets.cbegin(), edge.chunkGets.cend(), 0)), origin.unavailable,
                edge.unavailable);
    std::printf("next presses: origin sent %.1f MiB, %d chunks, %d of them served whole before; answers 503: %d\n",
                double(catchUp.bytes) / (1 << 20), int(std::accumulate(catchUp.chunkGets.cbegin(),
                                                                         catchUp.chunkGets.cend(), 0)),
                servedAgain, catchUp.unavailable);
    const int failures = started.value(QStringLiteral("nothing")) + int(heldBack.size()) - resumed;
    std::printf("failures: %d (%d launchers started nothing, %d held back did not resume)\n", failures,
                started.value(QStringLiteral("nothing")), int(heldBack.size()) - resumed);
    return failures == 0 && servedAgain == 0 ? 0 : 1;
}
