#include "BlackHole.h"
#include "ShortLimits.h"
#include "TaskOutcome.h"
#include "TestFiles.h"
#include "TestRequirements.h"
#include "TestServer.h"

#include "net/HttpClient.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <QCoroTask>

#include <chrono>
#include <exception>
#include <memory>
#include <optional>
#include <vector>


namespace {

using namespace std::chrono_literals;

// What the watchdog says when each of its limits ends a transfer.
const QString kConnectLimit = QStringLiteral("Could not connect to the server in time.");
const QString kInactivityLimit = QStringLiteral("The server stopped sending data.");
const QString kThroughputFloor = QStringLiteral("The server is sending data too slowly.");
const QString kDeadline = QStringLiteral("The server did not send its whole answer in time.");

// A client with the product's limits, as the launcher uses.
HttpClient& productClient() {
    static HttpClient client;
    return client;
}

HttpResponse fetch(const QUrl& url) {
    return awaitResult(productClient().data(url));
}

// A streamed body kept in memory, with the head it came under.
struct Streamed {
    ResponseHead head;
    QByteArray body;
    int heads = 0; // how often the receiver was shown a head
};

class MemoryReceiver : public BodyReceiver {
public:
    explicit MemoryReceiver(Streamed& into) : into_(into) {}
    Verdict accept(const ResponseHead& head) override {
        into_.head = head;
        ++into_.heads;
        return Verdict::take();
    }
    std::exception_ptr write(const char* bytes, qint64 size) override {
        into_.body.append(bytes, size);
        return {};
    }

private:
    Streamed& into_;
};

Streamed download(const QUrl& url, const RequestHeaders& headers = {},
                  HttpClient& client = productClient()) {
    Streamed streamed;
    MemoryReceiver receiver(streamed);
    const ResponseHead head = awaitResult(client.stream(url, headers, receiver));
    streamed.head = head;
    return streamed;
}

// Runs `operation` and returns the NetworkError's text, or a null string when none was thrown.
template <typename Operation>
QString networkErrorOf(Operation operation) {
    try {
        operation();
    } catch (const NetworkError& error) {
        return QString::fromStdString(error.what());
    }
    return QString();
}

} // namespace

class TestHttpClient : public QObject {
    Q_OBJECT

    QTemporaryDir temp;
    std::unique_ptr<TestServer> server;
    QByteArray manifest = "{\"version\":\"0.4.2\"}";

private slots:
    void initTestCase() {
        ZENTHO_REQUIRE(nginx);
        QVERIFY(temp.isValid());
        qputenv("TMPDIR", QFile::encodeName(temp.path()));
        QCOMPARE(QDir::tempPath(), temp.path());
        server = std::make_unique<TestServer>();
        server->writeFile(QStringLiteral("m.json"), manifest);
        server->writeFile(QStringLiteral("big.bin"), TestFiles::randomBytes(1024 * 1024, 42));
    }

    // Runs before the test CA is trusted. Its own server: Qt keeps a connection per host and
    // port, and it must not carry the untrusted state over to the trusted tests.
    void untrustedCertificateIsATransportError() {
        const TestServer other;
        other.writeFile(QStringLiteral("m.json"), manifest);
        const QString error = networkErrorOf([&] { fetch(other.url("/m.json")); });
        QVERIFY2(error.contains(QStringLiteral("SSL"), Qt::CaseInsensitive), qPrintable(error));
        TestServer::trustInThisProcess();
        QCOMPARE(fetch(server->url("/m.json")).body, manifest);
    }

    void okAnswerCarriesStatusAndBody() {
        const HttpResponse response = fetch(server->url("/m.json"));
        QCOMPARE(response.statusCode, std::optional<int>(200));
        QCOMPARE(response.body, manifest);
    }

    // A chunk or an index comes whole into memory, never beyond what it can be.
    void cappedFetchStopsAtItsCap() {
        const HttpResponse whole = awaitResult(productClient().capped(server->url("/big.bin"), 1024 * 1024));
        QCOMPARE(whole.statusCode, std::optional<int>(200));
        QCOMPARE(whole.body.size(), 1024 * 1024);
        const QString error = networkErrorOf(
            [&] { awaitResult(productClient().capped(server->url("/big.bin"), 1024 * 1024 - 1)); });
        QVERIFY2(error.startsWith(QStringLiteral("The answer is larger than")), qPrintable(error));
    }

    void errorStatusesAreAnswersNotFailures_data() {
        QTest::addColumn<int>("code");
        QTest::addColumn<QByteArray>("body");
        QTest::newRow("204") << 204 << QByteArray();
        QTest::newRow("206") << 206 << manifest;
        QTest::newRow("404") << 404 << manifest;
        QTest::newRow("407") << 407 << manifest;
        QTest::newRow("500") << 500 << manifest;
    }
    void errorStatusesAreAnswersNotFailures() {
        QFETCH(int, code);
        QFETCH(QByteArray, body);
        const HttpResponse response =
            fetch(server->url(QStringLiteral("/status/%1/m.json").arg(code)));
        QCOMPARE(response.statusCode, std::optional<int>(code));
        QCOMPARE(response.body, body);
    }

    // An origin server's 407 is an answer like any other: no proxy is ever in use.
    void status407IsAnAnswerForDownloadsToo() {
        const Streamed file = download(server->url("/status/407/m.json"));
        QCOMPARE(file.head.statusCode, std::optional<int>(407));
    }

    void missingFileIs404() {
        const HttpResponse response = fetch(server->url("/nothing-here.json"));
        QCOMPARE(response.statusCode, std::optional<int>(404));
    }

    void htmlBodyComesBackAsIs() {
        const HttpResponse response = fetch(server->url("/html"));
        QCOMPARE(response.statusCode, std::optional<int>(200));
        QVERIFY(response.body.startsWith("<!DOCTYPE html>"));
    }

    void truncatedBodyIsATransportError() {
        QVERIFY(!networkErrorOf([&] { fetch(server->url("/truncated")); }).isNull());
        QVERIFY(!networkErrorOf([&] { download(server->url("/truncated")); }).isNull());
    }

    void wholeBodyIsNotTruncated() {
        const Streamed file = download(server->url("/big.bin"));
        QCOMPARE(file.head.statusCode, std::optional<int>(200));
        QCOMPARE(file.body.size(), 1024 * 1024);
        QCOMPARE(file.head.contentLength, std::optional<qint64>(1024 * 1024));
        QVERIFY(file.head.etag.startsWith('"'));
        QVERIFY(!file.head.lastModified.isEmpty());
    }

    // The receiver sees the head once, before the body.
    void headComesOnceBeforeTheBody() {
        const Streamed file = download(server->url("/redirect/https/big.bin"));
        QCOMPARE(file.heads, 1);
        QCOMPARE(file.head.statusCode, std::optional<int>(200));
    }

    // A receiver that wants nothing of an answer's body ends the transfer at its head: the body
    // never reaches it, and the server stops sending (nginx logs the request, cut short, once the
    // connection has gone).
    void declinedBodyEndsTheTransferAtItsHead() {
        struct Declining : BodyReceiver {
            int writes = 0;
            Verdict accept(const ResponseHead&) override { return Verdict::decline(); }
            std::exception_ptr write(const char*, qint64) override {
                ++writes;
                return {};
            }
        } receiver;
        const QString path = QStringLiteral("/throttle/declined.bin");
        server->writeFile(QStringLiteral("declined.bin"), TestFiles::randomBytes(4 * 1024 * 1024, 7));
        const ResponseHead head = awaitResult(productClient().stream(server->url(path), {}, receiver));
        QCOMPARE(head.statusCode, std::optional<int>(200));
        QCOMPARE(receiver.writes, 0);
        // nginx logs the request, cut short, once it has noticed the connection gone.
        QTRY_COMPARE_WITH_TIMEOUT(server->servedFor(path).size(), 1, 60000);
        QVERIFY(server->servedFor(path).first().bytes < 4 * 1024 * 1024);
    }
    // The twin: the same answer taken whole.
    void takenBodyArrivesWhole() {
        server->writeFile(QStringLiteral("taken.bin"), TestFiles::randomBytes(4 * 1024 * 1024, 7));
        const Streamed file = download(server->url(QStringLiteral("/taken.bin")));
        QCOMPARE(file.head.statusCode, std::optional<int>(200));
        QCOMPARE(file.body, TestFiles::randomBytes(4 * 1024 * 1024, 7));
    }

    // Headers go with the request: nginx answers a Range with the range.
    void requestHeadersAreSent() {
        const Streamed part = download(server->url("/big.bin"), {{"Range", "bytes=1000-"}});
        QCOMPARE(part.head.statusCode, std::optional<int>(206));
        QCOMPARE(part.head.contentRange, QByteArray("bytes 1000-1048575/1048576"));
        QCOMPARE(part.body, TestFiles::randomBytes(1024 * 1024, 42).mid(1000));
        // The twin: without it, the whole file.
        QCOMPARE(download(server->url("/big.bin")).body.size(), 1024 * 1024);
    }

    // The product's limits: 5 s to connect, 15 s without a byte, 64 KiB in every 20 s, and a
    // manifest done within 30 s; an archive has no deadline. Each is proved below, shortened.
    void productLimitsAreTheAdvertisedOnes() {
        const TransferLimits product = productClient().limits();
        for (const TransferWatchdog::Limits& limits : {product.download, product.manifest}) {
            QCOMPARE(limits.connect, std::chrono::milliseconds(5s));
            QCOMPARE(limits.inactivity, std::chrono::milliseconds(15s));
            QCOMPARE(limits.window, std::chrono::milliseconds(20s));
            QCOMPARE(limits.minimumBytesPerWindow, qint64(64 * 1024));
        }
        QCOMPARE(product.manifest.deadline, std::chrono::milliseconds(30s));
        QCOMPARE(product.download.deadline, std::chrono::milliseconds(0));
    }

    // A body that keeps coming at 1 KiB/s, far under the floor, is ended by the floor.
    void dripFeedEndsAtTheThroughputFloor() {
        HttpClient client(onlyShort([](TransferWatchdog::Limits& l) { l.window = 1s; }));
        const QString error =
            networkErrorOf([&] { download(server->url("/drip/big.bin"), {}, client); });
        QCOMPARE(error, kThroughputFloor);
    }

    void dripFedSmallBodyStillArrives() {
        // The floor is on throughput, not on duration: a small answer from the same slow
        // server completes.
        const HttpResponse response = fetch(server->url("/drip/m.json"));
        QCOMPARE(response.statusCode, std::optional<int>(200));
        QCOMPARE(response.body, manifest);
    }

    // The small files an update reads before it knows what to fetch (a chunk index) are held to
    // a manifest's deadline: a server drip-feeding one above the throughput floor cannot keep the
    // player waiting for hours.
    void dripFedMetadataEndsAtTheDeadline() {
        TransferLimits limits = onlyShort([](TransferWatchdog::Limits&) {});
        limits.manifest.deadline = 1s;
        HttpClient client(limits);
        const QString error = networkErrorOf(
            [&] { awaitResult(client.metadata(server->url("/drip/big.bin"), 2 * 1024 * 1024)); });
        QCOMPARE(error, kDeadline);
    }

    // The twin: a small one from the same slow server arrives whole, and one over its cap is
    // refused by its size.
    void metadataWithinItsBoundsArrives() {
        TransferLimits limits = onlyShort([](TransferWatchdog::Limits&) {});
        limits.manifest.deadline = 20s;
        HttpClient client(limits);
        const HttpResponse response = awaitResult(client.metadata(server->url("/drip/m.json"), 1024));
        QCOMPARE(response.statusCode, std::optional<int>(200));
        QCOMPARE(response.body, manifest);
        QCOMPARE(networkErrorOf([&] { awaitResult(client.metadata(server->url("/big.bin"), 1024)); }),
                 QStringLiteral("The answer is larger than 1 KiB."));
    }

    // 64 KiB, then nothing: the inactivity limit ends it, for a download and for a manifest.
    void stalledBodyEndsAtTheInactivityLimit() {
        HttpClient client(onlyShort([](TransferWatchdog::Limits& l) { l.inactivity = 1s; }));
        QCOMPARE(networkErrorOf([&] { download(server->url("/stall"), {}, client); }),
                 kInactivityLimit);
        QCOMPARE(networkErrorOf([&] { awaitResult(client.data(server->url("/stall"))); }),
                 kInactivityLimit);
    }

    // A request that is read and never answered, not even with headers.
    void unansweredRequestEndsAtTheInactivityLimit() {
        HttpClient client(onlyShort([](TransferWatchdog::Limits& l) { l.inactivity = 1s; }));
        QCOMPARE(networkErrorOf([&] { awaitResult(client.data(server->url("/silent"))); }),
                 kInactivityLimit);
    }
    void redirectToHttpsIsFollowed() {
        const HttpResponse response = fetch(server->url("/redirect/https/m.json"));
        QCOMPARE(response.statusCode, std::optional<int>(200));
        QCOMPARE(response.body, manifest);
        const Streamed file = download(server->url("/redirect/https/big.bin"));
        QCOMPARE(file.head.statusCode, std::optional<int>(200));
        QCOMPARE(file.body.size(), 1024 * 1024);
    }

    void redirectDowngradeToHttpIsRefused() {
        QVERIFY(!networkErrorOf([&] { fetch(server->url("/redirect/http/m.json")); }).isNull());
        QVERIFY(!networkErrorOf([&] { download(server->url("/redirect/http/big.bin")); }).isNull());
    }

    void plainHttpWithoutDowngradeWorks() {
        QCOMPARE(fetch(server->httpUrl("/m.json")).body, manifest);
    }

    void endlessRedirectsFail() {
        QVERIFY(!networkErrorOf([&] { fetch(server->url("/redirect/loop")); }).isNull());
    }

    // Refused by the system, not ended by the connect limit, which would say so.
    void refusedConnectionFailsAtOnce() {
        const quint16 port = TestServer::unusedLocalPort();
        const QString error = networkErrorOf(
            [&] { fetch(QUrl(QStringLiteral("https://127.0.0.1:%1/m.json").arg(port))); });
        QVERIFY2(error.contains(QStringLiteral("refused"), Qt::CaseInsensitive), qPrintable(error));
        QVERIFY(error != kConnectLimit);
    }

    // The twin: a server that never answers the SYN is given up on by the connect limit.
    void blackHoledServerEndsAtTheConnectLimit() {
        BlackHole hole;
        HttpClient client(onlyShort([](TransferWatchdog::Limits& l) { l.connect = 500ms; }));
        const QUrl url(QStringLiteral("https://127.0.0.1:%1/m.json").arg(hole.port()));
        QCOMPARE(networkErrorOf([&] { awaitResult(client.data(url)); }), kConnectLimit);
        QCOMPARE(networkErrorOf([&] { download(url, {}, client); }), kConnectLimit);
    }

    void fileURLHasNoStatus() {
        const QString path = server->writeFile(QStringLiteral("local/m.json"), manifest);
        const HttpResponse response = fetch(QUrl::fromLocalFile(path));
        QCOMPARE(response.statusCode, std::nullopt);
        QCOMPARE(response.body, manifest);

        const Streamed file = download(QUrl::fromLocalFile(path));
        QCOMPARE(file.head.statusCode, std::nullopt);
        QCOMPARE(file.body, manifest);
    }

    void missingFileURLIsATransportError() {
        const QUrl url = QUrl::fromLocalFile(server->documentRoot() + "/absent.json");
        QVERIFY(!networkErrorOf([&] { fetch(url); }).isNull());
        QVERIFY(!networkErrorOf([&] { download(url); }).isNull());
    }

    void downloadOfErrorStatusKeepsBodyAndStatus() {
        const Streamed file = download(server->url("/status/404/m.json"));
        QCOMPARE(file.head.statusCode, std::optional<int>(404));
        QCOMPARE(file.body, manifest);
    }

    // Release servers offer HTTP/2 and end a connection after so many requests; a first install
    // from chunks sends thousands, many waiting at once, and every one must come back whole.
    void manyGetsAllArriveFromAServerThatEndsItsConnections_data() {
        QTest::addColumn<bool>("http2");
        QTest::newRow("HTTP/2 offered") << true;
        QTest::newRow("HTTP/1.1 only") << false;
    }
    void manyGetsAllArriveFromAServerThatEndsItsConnections() {
        QFETCH(bool, http2);
        const TestServer offering(0, {}, http2 ? TestServer::Http2::Offered : TestServer::Http2::Off);
        const int files = 350; // more than three of the server's connections can take
        for (int i = 0; i < files; ++i)
            offering.writeFile(QStringLiteral("c/%1").arg(i), TestFiles::randomBytes(2048, quint32(i)));
        int whole = 0;
        QStringList failures;
        const auto fetchOne = [&](QUrl url, QByteArray expected) -> QCoro::Task<void> {
            try {
                const HttpResponse response = co_await productClient().capped(url, 4096);
                if (response.statusCode == std::optional<int>(200) && response.body == expected)
                    ++whole;
                else
                    failures << url.path() + QStringLiteral(" answered ") +
                                    QString::number(response.statusCode.value_or(0));
            } catch (const std::exception& error) {
                failures << url.path() + QStringLiteral(": ") + QString::fromUtf8(error.what());
            }
        };
        std::vector<QCoro::Task<void>> running;
        for (int i = 0; i < files; ++i)
            running.push_back(fetchOne(offering.url(QStringLiteral("/c/%1").arg(i)),
                                       TestFiles::randomBytes(2048, quint32(i))));
        // Bounds the wait only: every request ends by itself within the client's limits.
        QVERIFY(QTest::qWaitFor([&] { return whole + failures.size() == files; }, 600'000));
        QVERIFY2(failures.isEmpty(), qPrintable(failures.mid(0, 5).join(QLatin1Char('\n'))));
        QCOMPARE(whole, files);
    }

    void cleanupTestCase() {
        server.reset();
    }
};

QTEST_MAIN(TestHttpClient)
#include "TestHttpClient.moc"
