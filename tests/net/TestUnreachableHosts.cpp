#include "BlackHole.h"
#include "FaultServer.h"
#include "ShortLimits.h"
#include "TaskOutcome.h"
#include "TestRequirements.h"
#include "TestServer.h"

#include "net/HttpClient.h"
#include "net/UnreachableHosts.h"

#include <QTemporaryDir>
#include <QTest>

namespace {

const std::chrono::milliseconds kConnect{1000};
const QString kConnectTimeout = QStringLiteral("Could not connect to the server in time.");

// A client with a short connect limit, remembering unreachable servers in `memo` when given.
HttpClient clientWith(UnreachableHosts* memo) {
    TransferLimits limits;
    limits.manifest.connect = kConnect;
    limits.download.connect = kConnect;
    HttpClient client(limits);
    client.rememberUnreachableIn(memo);
    return client;
}

// An archive's body is not what these tests look at, only whether its server answered.
class DiscardingReceiver : public BodyReceiver {
public:
    Verdict accept(const ResponseHead&) override { return Verdict::take(); }
    std::exception_ptr write(const char*, qint64) override { return nullptr; }
};

// How a request ended, and whether it had already ended when the call returned: a request the
// memo refuses never reaches the network, so it is over before the event loop turns once.
struct Attempt {
    QString error; // null when the request got an answer
    bool endedAtOnce = false;
};

template <typename T>
Attempt settle(QCoro::Task<T> task) {
    Attempt attempt;
    attempt.endedAtOnce = task.isReady();
    try {
        awaitResult(std::move(task));
    } catch (const NetworkError& error) {
        attempt.error = QString::fromStdString(error.what());
    }
    return attempt;
}

Attempt fetch(HttpClient& client, const QUrl& url, bool archive = false) {
    DiscardingReceiver receiver;
    if (archive)
        return settle(client.stream(url, {}, receiver));
    return settle(client.data(url));
}

QUrl at(quint16 port, const QString& path = QStringLiteral("/m.json")) {
    return QUrl(QStringLiteral("https://127.0.0.1:%1%2").arg(port).arg(path));
}

} // namespace

// A server that failed to connect is not tried again while the memo lasts (one press): the next
// request to it fails at once with the same error. Other servers, and the next press, are tried
// as usual.
class TestUnreachableHosts : public QObject {
    Q_OBJECT

    QTemporaryDir temp_;
    std::unique_ptr<TestServer> server_;

private slots:
    void initTestCase() {
        ZENTHO_REQUIRE(nginx);
        qputenv("TMPDIR", QFile::encodeName(temp_.path()));
        server_ = std::make_unique<TestServer>();
        server_->writeFile(QStringLiteral("m.json"), "{}");
        TestServer::trustInThisProcess();
    }

    void blackHoledServerIsWaitedForOncePerFlow() {
        BlackHole hole;
        UnreachableHosts memo;
        HttpClient client = clientWith(&memo);
        const Attempt first = fetch(client, at(hole.port()));
        QCOMPARE(first.error, kConnectTimeout);
        QVERIFY(!first.endedAtOnce);
        // The launcher manifest, then the game manifest and the archive on the same server.
        for (const bool archive : {false, true}) {
            const Attempt again = fetch(client, at(hole.port(), QStringLiteral("/other.json")), archive);
            QCOMPARE(again.error, first.error);
            QVERIFY(again.endedAtOnce);
        }
        // A server elsewhere is unaffected.
        const Attempt elsewhere = fetch(client, server_->url(QStringLiteral("/m.json")));
        QVERIFY(elsewhere.error.isNull());
        QVERIFY(!elsewhere.endedAtOnce);
    }

    // A server that sends the request on to one that never answers costs the connect limit, as
    // that server itself would, and the target is remembered: another request redirected there,
    // or sent there, fails with the same error without waiting again.
    void redirectToABlackHoleIsWaitedForOncePerFlow() {
        BlackHole hole;
        UnreachableHosts memo;
        HttpClient client = clientWith(&memo);
        const auto redirecting = [&](const QString& query) {
            return QUrl(QStringLiteral("http://127.0.0.1:%1/fault/redirect/%2?%3")
                            .arg(server_->faultServer().port())
                            .arg(hole.port())
                            .arg(query));
        };
        const Attempt first = fetch(client, redirecting(QStringLiteral("first")));
        QCOMPARE(first.error, kConnectTimeout);
        QCOMPARE(memo.failureFor(at(hole.port())), std::optional<QString>(kConnectTimeout));
        QCOMPARE(memo.failureFor(redirecting(QString())), std::nullopt); // the redirecting server answered
        const Attempt direct = fetch(client, at(hole.port()), true);
        QCOMPARE(direct.error, kConnectTimeout);
        QVERIFY(direct.endedAtOnce);
        // Redirected again, by a client that would wait an hour to connect: refused as the
        // redirect arrives, with the remembered error, and not by a limit of its own.
        HttpClient patient(onlyShort([](TransferWatchdog::Limits&) {}));
        patient.rememberUnreachableIn(&memo);
        const Attempt again = fetch(patient, redirecting(QStringLiteral("again")), true);
        QCOMPARE(again.error, kConnectTimeout);
    }

    // The next press starts with a clean slate.
    void nextFlowTriesAgain() {
        BlackHole hole;
        {
            UnreachableHosts memo;
            HttpClient client = clientWith(&memo);
            QCOMPARE(fetch(client, at(hole.port())).error, kConnectTimeout);
        }
        UnreachableHosts next;
        HttpClient client = clientWith(&next);
        const Attempt again = fetch(client, at(hole.port()));
        QCOMPARE(again.error, kConnectTimeout);
        QVERIFY(!again.endedAtOnce);
    }

    // Without a memo nothing is remembered: each request waits for the server itself.
    void withoutAFlowEveryRequestTries() {
        BlackHole hole;
        HttpClient client = clientWith(nullptr);
        for (int i = 0; i < 2; ++i) {
            const Attempt attempt = fetch(client, at(hole.port()));
            QCOMPARE(attempt.error, kConnectTimeout);
            QVERIFY(!attempt.endedAtOnce);
        }
    }

    void refusedServerIsRemembered() {
        const quint16 port = TestServer::unusedLocalPort();
        UnreachableHosts memo;
        HttpClient client = clientWith(&memo);
        const Attempt first = fetch(client, at(port));
        QVERIFY(first.error.contains(QStringLiteral("refused"), Qt::CaseInsensitive));
        QVERIFY(!first.endedAtOnce);
        QCOMPARE(memo.failureFor(at(port, QStringLiteral("/x"))), std::optional<QString>(first.error));
        const Attempt again = fetch(client, at(port));
        QCOMPARE(again.error, first.error);
        QVERIFY(again.endedAtOnce);
    }

    // Only a failure to connect counts: a server that answers, even with an error status or a
    // broken body, is asked again.
    void answeringServerIsNotRemembered() {
        UnreachableHosts memo;
        HttpClient client = clientWith(&memo);
        QVERIFY(fetch(client, server_->url(QStringLiteral("/status/500/m.json"))).error.isNull());
        QVERIFY(!fetch(client, server_->url(QStringLiteral("/truncated")), true).error.isNull());
        QCOMPARE(memo.failureFor(server_->url(QStringLiteral("/m.json"))), std::nullopt);
        const Attempt again = fetch(client, server_->url(QStringLiteral("/m.json")));
        QVERIFY(again.error.isNull());
        QVERIFY(!again.endedAtOnce);
    }

    void sameHostOtherPortIsAnotherServer() {
        UnreachableHosts memo;
        memo.remember(QUrl(QStringLiteral("https://Example.test/a")), QStringLiteral("down"));
        QCOMPARE(memo.failureFor(QUrl(QStringLiteral("https://example.test:443/b"))),
                 std::optional<QString>(QStringLiteral("down")));
        QCOMPARE(memo.failureFor(QUrl(QStringLiteral("https://example.test:8443/b"))), std::nullopt);
        QCOMPARE(memo.failureFor(QUrl(QStringLiteral("http://example.test/b"))), std::nullopt);
        QCOMPARE(memo.failureFor(QUrl(QStringLiteral("https://other.test/a"))), std::nullopt);
    }
};

QTEST_GUILESS_MAIN(TestUnreachableHosts)
#include "TestUnreachableHosts.moc"
