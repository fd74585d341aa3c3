// Fetching the chunks an update lacks: many requests at once, over one HTTP/2 connection where the
// server offers it, and none of them failing for the time it waits behind the others.

#include "BlackHole.h"
#include "ChunkTraffic.h"
#include "PublishedChunks.h"
#include "ShortLimits.h"
#include "TaskOutcome.h"
#include "TestRequirements.h"
#include "TestServer.h"

#include "chunks/ChunkDownload.h"
#include "net/HttpClient.h"
#include "storage/ChunkCache.h"

#include <QSet>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <memory>

namespace {

using namespace std::chrono_literals;

const QString kConnectLimit = QStringLiteral("Could not connect to the server in time.");

// Fetches `chunks` from `store` into `cache`; the NetworkError's text, or empty.
QString fetchAll(const TransferLimits& limits, const QUrl& store, const std::vector<ChunkRef>& chunks,
                 const ChunkCache& cache) {
    HttpClient client(limits);
    const std::exception_ptr error = waitForOutcome(downloadChunks(client, ChunkDownload{store, chunks, 0, nullptr}, cache));
    if (!error)
        return {};
    try {
        std::rethrow_exception(error);
    } catch (const NetworkError& failure) {
        return QString::fromStdString(failure.what());
    }
}

int keptOf(const ChunkCache& cache, const std::vector<ChunkRef>& chunks) {
    int kept = 0;
    for (const ChunkRef& chunk : chunks)
        kept += cache.holds(chunk.sha256, chunk.size) ? 1 : 0;
    return kept;
}

} // namespace

class TestChunkDownload : public QObject {
    Q_OBJECT

    QTemporaryDir temp;

    // The chunk GETs of `store` in the server's log so far.
    static QList<ChunkTraffic::Get> chunkGets(const TestServer& server, const QString& store) {
        server.awaitLogged();
        QList<ChunkTraffic::Get> gets;
        for (const ChunkTraffic::Get& get : ChunkTraffic::getsIn(server.accessLog()))
            if (get.path.startsWith(store + QLatin1Char('/')) && !ChunkTraffic::chunkOf(get.path).isEmpty())
                gets << get;
        return gets;
    }

    static QSet<qint64> connectionsOf(const QList<ChunkTraffic::Get>& gets) {
        QSet<qint64> connections;
        for (const ChunkTraffic::Get& get : gets)
            connections.insert(get.connection);
        return connections;
    }

private slots:
    void initTestCase() {
        ZENTHO_REQUIRE(nginx);
        QVERIFY(temp.isValid());
        qputenv("TMPDIR", QFile::encodeName(temp.path()));
        TestServer::trustInThisProcess();
    }

    // A patch's worth of chunks from a server that offers HTTP/2: every request on one connection.
    void chunksComeOverOneHttp2Connection() {
        TestServer server(TestServer::Http2::Offered);
        const std::vector<ChunkRef> chunks = PublishedChunks::publish(server, QStringLiteral("store"), 50, 16 * 1024, 128 * 1024, 1);
        const ChunkCache cache(temp.filePath(QStringLiteral("h2")));
        QCOMPARE(fetchAll(TransferLimits{}, server.url(QStringLiteral("/store")), chunks, cache), QString());
        QCOMPARE(keptOf(cache, chunks), 50);
        const QList<ChunkTraffic::Get> gets = chunkGets(server, QStringLiteral("/store"));
        QCOMPARE(gets.size(), 50);
        for (const ChunkTraffic::Get& get : gets) {
            QCOMPARE(get.protocol, QStringLiteral("HTTP/2.0"));
            QCOMPARE(get.status, 200);
        }
        QCOMPARE(connectionsOf(gets).size(), 1);
    }

    // The twin: a server that speaks only HTTP/1.1 gets the same requests as HTTP/1.1, on
    // connections of their own, never more than Qt opens to one server.
    void anHttp11ServerGetsThemOnAFewConnections() {
        TestServer server;
        const std::vector<ChunkRef> chunks = PublishedChunks::publish(server, QStringLiteral("store"), 50, 16 * 1024, 128 * 1024, 1);
        const ChunkCache cache(temp.filePath(QStringLiteral("h1")));
        QCOMPARE(fetchAll(TransferLimits{}, server.url(QStringLiteral("/store")), chunks, cache), QString());
        QCOMPARE(keptOf(cache, chunks), 50);
        const QList<ChunkTraffic::Get> gets = chunkGets(server, QStringLiteral("/store"));
        QCOMPARE(gets.size(), 50);
        for (const ChunkTraffic::Get& get : gets)
            QCOMPARE(get.protocol, QStringLiteral("HTTP/1.1"));
        QVERIFY(connectionsOf(gets).size() > 1);
        QVERIFY(connectionsOf(gets).size() <= 6);
    }

    // Many chunks with the product's limits, each answer slowed to 4 KiB/s so it takes about a
    // second: over HTTP/1.1 most requests wait seconds for a free connection, over HTTP/2 they
    // cross the end of a connection (the server's 100 requests) and go on over a new one; none
    // fails.
    void manyRateLimitedChunksAllArrive_data() {
        QTest::addColumn<bool>("http2");
        QTest::newRow("HTTP/1.1") << false;
        QTest::newRow("HTTP/2") << true;
    }
    void manyRateLimitedChunksAllArrive() {
        QFETCH(bool, http2);
        TestServer server(http2 ? TestServer::Http2::Offered : TestServer::Http2::Off);
        const std::vector<ChunkRef> chunks = PublishedChunks::publish(server, QStringLiteral("store"), 200, 4 * 1024, 6 * 1024, 2);
        const ChunkCache cache(temp.filePath(http2 ? QStringLiteral("many-h2") : QStringLiteral("many-h1")));
        QCOMPARE(fetchAll(TransferLimits{}, server.url(QStringLiteral("/trickle/store")), chunks, cache), QString());
        QCOMPARE(keptOf(cache, chunks), 200);
        const QList<ChunkTraffic::Get> gets = chunkGets(server, QStringLiteral("/trickle/store"));
        QCOMPARE(std::count_if(gets.cbegin(), gets.cend(), [](const ChunkTraffic::Get& get) { return get.status == 200; }), 200);
        if (http2)
            QVERIFY(connectionsOf(gets).size() > 1);
    }

    // The twin: a store on a server that shows no sign of life ends at the connect limit, with
    // nothing kept.
    void chunksFromAServerWithoutSignOfLifeEndAtTheConnectLimit() {
        BlackHole hole;
        TestServer server;
        const std::vector<ChunkRef> chunks = PublishedChunks::publish(server, QStringLiteral("store"), 40, 4 * 1024, 6 * 1024, 3);
        const ChunkCache cache(temp.filePath(QStringLiteral("hole")));
        const TransferLimits limits = onlyShort([](TransferWatchdog::Limits& l) { l.connect = 1s; });
        const QUrl store(QStringLiteral("https://127.0.0.1:%1/store").arg(hole.port()));
        QCOMPARE(fetchAll(limits, store, chunks, cache), kConnectLimit);
        QCOMPARE(keptOf(cache, chunks), 0);
    }
};

QTEST_GUILESS_MAIN(TestChunkDownload)
#include "TestChunkDownload.moc"
