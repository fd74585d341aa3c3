// What a long link costs chunked updates: the launcher's chunk fetch (an index, then its chunks,
// as an update asks for them) through a DelayProxy in front of a real nginx over loopback HTTPS,
// with no delay and with a round trip of 100 ms, on a fresh connection each time. nginx's access
// log tells the requests and the connections they came on.
//
//   patch    50 chunks, 16 to 112 KiB (about 3 MiB): a hotfix; median of three runs
//   install  1000 such chunks (about 62 MiB): a first install; one run. The HTTP/2 server ends
//            each connection after 100 requests (TestServer), so this crosses nine such ends
//
// each fetched
//
//   before   from a server that speaks HTTP/1.1 only, 6 requests in flight (the old bound)
//   after    from a server that offers HTTP/2, the product's bound in flight
//   h1 now   from a server that speaks HTTP/1.1 only, the product's bound in flight
//
// "round trips" is (time at 100 ms - time at 0 ms) / 100 ms: how many round trips the fetch
// waited on. The proxy makes each connection cost one round trip before its first byte, as a TCP
// handshake does. Exit status 0 when the patch of "after" waits on at most 8 round trips, 2 when
// it waits on more, 1 when a fetch failed.
//
//   BenchChunkLatency                         as above
//   ZENTHO_BENCH_IN_FLIGHT=16 BenchChunkLatency   "after" and "h1 now" with another bound

#include "ChunkTraffic.h"
#include "DelayProxy.h"
#include "PublishedChunks.h"
#include "TaskOutcome.h"
#include "TestServer.h"

#include "chunks/ChunkDownload.h"
#include "net/HttpClient.h"
#include "storage/ChunkCache.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QLoggingCategory>
#include <QSet>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>
#include <memory>

namespace {

using namespace std::chrono_literals;

const qint64 kMiB = 1024 * 1024;
const qint64 kIndexBytes = 200 * 1024; // about what the index of a 1 GiB build weighs

struct Setup {
    const char* name;
    TestServer* server;
    int inFlight;
};

struct Workload {
    const char* name;
    std::vector<ChunkRef> chunks;
    int runs;
};

struct Measured {
    double seconds = -1;
    int requests = 0;
    int connections = 0;
    QString protocols;
};

QCoro::Task<void> fetchUpdate(HttpClient& client, QUrl index, QUrl store, std::vector<ChunkRef> chunks,
                              const ChunkCache& cache) {
    const HttpResponse answer = co_await client.metadata(index, 2 * kIndexBytes);
    if (answer.statusCode != 200 || answer.body.size() != kIndexBytes)
        throw std::runtime_error("the index did not arrive whole");
    // Named: GCC 12 destroys a braced temporary in a co_await expression twice.
    ChunkDownload download{store, std::move(chunks), 0, nullptr};
    co_await downloadChunks(client, std::move(download), cache);
}

// One fetch of `chunks` through a fresh proxy (so a fresh connection) into an empty cache.
Measured fetchOnce(const Setup& setup, const std::vector<ChunkRef>& chunks, std::chrono::milliseconds oneWay,
                   const QString& cacheRoot) {
    TestServer& server = *setup.server;
    const qsizetype logMark = server.accessLog().size();
    DelayProxy proxy(server.httpsPort(), oneWay);
    const auto viaProxy = [&](const char* path) {
        return QUrl(QStringLiteral("https://127.0.0.1:%1%2").arg(proxy.port()).arg(QLatin1String(path)));
    };
    TransferLimits limits;
    limits.parallelChunks = setup.inFlight;
    HttpClient client(limits);
    const ChunkCache cache(cacheRoot);
    Measured measured;
    QElapsedTimer clock;
    clock.start();
    const std::exception_ptr error =
        waitForOutcome(fetchUpdate(client, viaProxy("/index.json"), viaProxy("/store"), chunks, cache));
    const double seconds = double(clock.nsecsElapsed()) / 1e9;
    cache.clear();
    if (error) {
        try {
            std::rethrow_exception(error);
        } catch (const std::exception& e) {
            std::fprintf(stderr, "%s: %s\n", setup.name, e.what());
        }
        return measured;
    }
    server.awaitLogged();
    QSet<qint64> connections;
    QSet<QString> protocols;
    for (const ChunkTraffic::Get& get : ChunkTraffic::getsIn(server.accessLog().mid(logMark))) {
        if (get.path.startsWith(QLatin1String("/mark/")))
            continue;
        ++measured.requests;
        connections.insert(get.connection);
        protocols.insert(get.protocol);
    }
    measured.seconds = seconds;
    measured.connections = int(connections.size());
    measured.protocols = QStringList(protocols.cbegin(), protocols.cend()).join(QLatin1Char('+'));
    return measured;
}

Measured median(const Setup& setup, const Workload& workload, std::chrono::milliseconds oneWay,
                const QString& cacheRoot) {
    std::vector<Measured> runs;
    for (int i = 0; i < workload.runs; ++i)
        runs.push_back(fetchOnce(setup, workload.chunks, oneWay, cacheRoot));
    std::sort(runs.begin(), runs.end(), [](const Measured& a, const Measured& b) { return a.seconds < b.seconds; });
    const bool failed = std::any_of(runs.cbegin(), runs.cend(), [](const Measured& m) { return m.seconds < 0; });
    return failed ? Measured{} : runs[runs.size() / 2];
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    // Qt warns of every request an HTTP/2 server turns away as it ends a connection (the test
    // server does after 100), which the launcher sends again.
    QLoggingCategory::setFilterRules(QStringLiteral("qt.network.http2.warning=false"));
    QElapsedTimer wall;
    wall.start();
    const int productBound = qEnvironmentVariableIsSet("ZENTHO_BENCH_IN_FLIGHT")
                                 ? qEnvironmentVariableIntValue("ZENTHO_BENCH_IN_FLIGHT")
                                 : TransferLimits::defaultParallelChunks;
    QTemporaryDir scratch(QDir::tempPath() + QStringLiteral("/BenchChunkLatency-XXXXXX"));
    if (!scratch.isValid() || productBound < 1) {
        std::fprintf(stderr, "no scratch folder, or ZENTHO_BENCH_IN_FLIGHT is not a positive number\n");
        return 1;
    }
    qputenv("TMPDIR", QFile::encodeName(scratch.path())); // nginx's prefix goes there too
    TestServer::trustInThisProcess();

    TestServer http11;
    TestServer http2(TestServer::Http2::Offered);
    std::vector<Workload> workloads{
        {"patch", PublishedChunks::publish(http11, QStringLiteral("store"), 50, 16 * 1024, 112 * 1024, 1), 3},
        {"install", PublishedChunks::publish(http11, QStringLiteral("store"), 1000, 16 * 1024, 112 * 1024, 2), 1},
    };
    http11.writeFile(QStringLiteral("index.json"), QByteArray(kIndexBytes, 'i'));
    for (const char* shared : {"store", "index.json"}) {
        if (!QFile::link(http11.documentRoot() + QLatin1Char('/') + QLatin1String(shared),
                         http2.documentRoot() + QLatin1Char('/') + QLatin1String(shared))) {
            std::fprintf(stderr, "cannot share the store between the servers\n");
            return 1;
        }
    }
    const std::vector<Setup> setups{
        {"before: HTTP/1.1 server, 6 in flight", &http11, 6},
        {"after: HTTP/2 server, product bound", &http2, productBound},
        {"h1 now: HTTP/1.1 server, product bound", &http11, productBound},
    };

    std::printf("product bound: %d requests in flight%s\n", productBound,
                qEnvironmentVariableIsSet("ZENTHO_BENCH_IN_FLIGHT") ? " (from ZENTHO_BENCH_IN_FLIGHT)" : "");
    for (const Workload& workload : workloads)
        std::printf("%-8s %zu chunks, %.1f MiB, plus a %lld KiB index\n", workload.name, workload.chunks.size(),
                    double(PublishedChunks::bytesOf(workload.chunks)) / kMiB, kIndexBytes / 1024);
    std::printf("\n%-40s %-8s %6s %9s %9s %6s %-9s %9s\n", "setup", "fetch", "RTT", "time", "requests", "conns",
                "protocol", "MiB/s");

    bool allRan = true;
    double patchRoundTripsAfter = -1;
    std::vector<QString> summaries;
    for (const Setup& setup : setups) {
        for (const Workload& workload : workloads) {
            double seconds[2] = {-1, -1};
            for (int i = 0; i < 2; ++i) {
                const auto oneWay = i == 0 ? 0ms : 50ms;
                const Measured m = median(setup, workload, oneWay, scratch.filePath(QStringLiteral("cache")));
                seconds[i] = m.seconds;
                allRan = allRan && m.seconds >= 0;
                const double mib = double(PublishedChunks::bytesOf(workload.chunks) + kIndexBytes) / kMiB;
                std::printf("%-40s %-8s %4lldms %7.2f s %9d %6d %-9s %9.1f\n", setup.name, workload.name,
                            qlonglong(2 * oneWay.count()), m.seconds, m.requests, m.connections,
                            qPrintable(m.protocols), m.seconds > 0 ? mib / m.seconds : 0.0);
                std::fflush(stdout);
            }
            const double roundTrips = (seconds[1] - seconds[0]) / 0.1;
            summaries.push_back(QStringLiteral("%1, %2: %3 s at 0 ms, %4 s at 100 ms: %5 round trips")
                                    .arg(QLatin1String(setup.name), QLatin1String(workload.name))
                                    .arg(seconds[0], 0, 'f', 2)
                                    .arg(seconds[1], 0, 'f', 2)
                                    .arg(roundTrips, 0, 'f', 1));
            if (&setup == &setups[1] && &workload == &workloads[0])
                patchRoundTripsAfter = roundTrips;
        }
    }
    std::printf("\n");
    for (const QString& summary : summaries)
        std::printf("%s\n", qPrintable(summary));
    std::printf("\npatch after waits on %.1f round trips (goal <= 8: %s)\n", patchRoundTripsAfter,
                patchRoundTripsAfter <= 8 ? "met" : "NOT MET");
    std::printf("bench wall time: %.0f s\n", double(wall.elapsed()) / 1000);
    if (!allRan)
        return 1;
    return patchRoundTripsAfter <= 8 ? 0 : 2;
}
