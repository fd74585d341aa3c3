// The connect limit and the requests Qt holds back: Qt opens at most six HTTP/1.1 connections to
// one server and sends further requests only as those come free. Such a request waits on the
// ones ahead of it, not on the server, and must not fail for it; against a server that shows no
// sign of life every request still ends at the connect limit.

#include "BlackHole.h"
#include "ShortLimits.h"
#include "TaskOutcome.h"
#include "TestFiles.h"
#include "TestRequirements.h"
#include "TestServer.h"

#include "net/HttpClient.h"

#include <QTemporaryDir>
#include <QTest>

#include <memory>
#include <vector>

namespace {

using namespace std::chrono_literals;

const QString kConnectLimit = QStringLiteral("Could not connect to the server in time.");

// More than Qt's six connections to one server, so that some wait their turn.
constexpr int kRequestsAtOnce = 14;

struct Outcome {
    int status = 0;
    qint64 bytes = -1;
    QString error;
};

QCoro::Task<void> fetchInto(HttpClient& client, QUrl url, Outcome& outcome) {
    try {
        const HttpResponse response = co_await client.capped(url, 1024 * 1024);
        outcome.status = response.statusCode.value_or(0);
        outcome.bytes = response.body.size();
    } catch (const NetworkError& error) {
        outcome.error = QString::fromStdString(error.what());
    }
}

// Starts a GET of `url` `count` times at once and waits for all of them.
QCoro::Task<void> fetchAtOnce(HttpClient& client, QUrl url, std::vector<Outcome>& outcomes) {
    std::vector<QCoro::Task<void>> fetches;
    for (Outcome& outcome : outcomes)
        fetches.push_back(fetchInto(client, url, outcome));
    for (QCoro::Task<void>& fetch : fetches)
        co_await fetch;
}

std::vector<Outcome> fetchManyAtOnce(const TransferLimits& limits, const QUrl& url) {
    HttpClient client(limits);
    std::vector<Outcome> outcomes(kRequestsAtOnce);
    waitForOutcome(fetchAtOnce(client, url, outcomes));
    return outcomes;
}

} // namespace

class TestTransferWatchdog : public QObject {
    Q_OBJECT

    QTemporaryDir temp;
    std::unique_ptr<TestServer> server;
    const qint64 fileSize = 12 * 1024;

private slots:
    void initTestCase() {
        ZENTHO_REQUIRE(nginx);
        QVERIFY(temp.isValid());
        qputenv("TMPDIR", QFile::encodeName(temp.path()));
        server = std::make_unique<TestServer>();
        server->writeFile(QStringLiteral("small.bin"), TestFiles::randomBytes(int(fileSize), 5));
    }

    // Each answer takes about two seconds at 4 KiB/s, so those sent after the first six have
    // waited far longer than the connect limit before Qt sends them.
    void requestsHeldBackBehindBusyConnectionsWaitTheirTurn() {
        const TransferLimits limits = onlyShort([](TransferWatchdog::Limits& l) { l.connect = 1s; });
        const std::vector<Outcome> outcomes = fetchManyAtOnce(limits, server->httpUrl(QStringLiteral("/trickle/small.bin")));
        for (const Outcome& outcome : outcomes) {
            QCOMPARE(outcome.error, QString());
            QCOMPARE(outcome.status, 200);
            QCOMPARE(outcome.bytes, fileSize);
        }
    }

    // The twin: a server that never answers the SYN shows no sign of life, so every request,
    // held back or not, ends at the connect limit.
    void requestsToAServerWithoutSignOfLifeAllEndAtTheConnectLimit() {
        BlackHole hole;
        const TransferLimits limits = onlyShort([](TransferWatchdog::Limits& l) { l.connect = 500ms; });
        const std::vector<Outcome> outcomes =
            fetchManyAtOnce(limits, QUrl(QStringLiteral("http://127.0.0.1:%1/small.bin").arg(hole.port())));
        for (const Outcome& outcome : outcomes) {
            QCOMPARE(outcome.error, kConnectLimit);
            QCOMPARE(outcome.bytes, qint64(-1));
        }
    }
};

QTEST_GUILESS_MAIN(TestTransferWatchdog)
#include "TestTransferWatchdog.moc"
