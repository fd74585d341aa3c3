#include "BlackHole.h"
#include "TaskOutcome.h"
#include "TestServer.h"

#include "net/HttpClient.h"
#include "net/UnreachableHosts.h"

#include <QElapsedTimer>
#include <QTemporaryDir>
#include <QTest>

namespace {

const std::chrono::milliseconds kConnect{1000};

HttpClient& client() {
    static HttpClient shortConnect = [] {
        TransferLimits limits;
        limits.manifest.connect = kConnect;
        limits.download.connect = kConnect;
        return HttpClient(limits);
    }();
    return shortConnect;
}

// An archive's body is not what these tests look at, only whether its server answered.
class DiscardingReceiver : public BodyReceiver {
public:
    std::exception_ptr accept(const ResponseHead&) override { return nullptr; }
    std::exception_ptr write(const char*, qint64) override { return nullptr; }
};

struct Attempt {
    QString error; // null when the request got an answer
    qint64 milliseconds = 0;
};

Attempt fetch(const QUrl& url, bool archive = false) {
    QElapsedTimer clock;
    clock.start();
    Attempt attempt;
    try {
        DiscardingReceiver receiver;
        if (archive)
            awaitResult(client().stream(url, {}, receiver));
        else
            awaitResult(client().data(url));
    } catch (const NetworkError& error) {
        attempt.error = QString::fromStdString(error.what());
    }
    attempt.milliseconds = clock.elapsed();
    return attempt;
}

QUrl at(quint16 port, const QString& path = QStringLiteral("/m.json")) {
    return QUrl(QStringLiteral("https://127.0.0.1:%1%2").arg(port).arg(path));
}

} // namespace

// A server that failed to connect is not tried again in the same press: the next request to it
// fails at once with the same error. Other servers, and the next press, are tried as usual.
class TestUnreachableHosts : public QObject {
    Q_OBJECT

    QTemporaryDir temp_;
    std::unique_ptr<TestServer> server_;

private slots:
    void initTestCase() {
        qputenv("TMPDIR", QFile::encodeName(temp_.path()));
        server_ = std::make_unique<TestServer>();
        server_->writeFile(QStringLiteral("m.json"), "{}");
        TestServer::trustInThisProcess();
    }

    void blackHoledServerIsWaitedForOncePerFlow() {
        BlackHole hole;
        const UnreachableHosts::FlowScope flow;
        const Attempt first = fetch(at(hole.port()));
        QVERIFY(!first.error.isNull());
        QVERIFY2(first.milliseconds >= kConnect.count() - 50, qPrintable(QString::number(first.milliseconds)));
        // The launcher manifest, then the game manifest and the archive on the same server.
        for (const bool archive : {false, true}) {
            const Attempt again = fetch(at(hole.port(), QStringLiteral("/other.json")), archive);
            QCOMPARE(again.error, first.error);
            QVERIFY2(again.milliseconds < 200, qPrintable(QString::number(again.milliseconds)));
        }
        // A server elsewhere is unaffected.
        QVERIFY(fetch(server_->url(QStringLiteral("/m.json"))).error.isNull());
    }

    // The next press starts with a clean slate.
    void nextFlowTriesAgain() {
        BlackHole hole;
        {
            const UnreachableHosts::FlowScope flow;
            QVERIFY(!fetch(at(hole.port())).error.isNull());
        }
        const UnreachableHosts::FlowScope next;
        const Attempt again = fetch(at(hole.port()));
        QVERIFY(!again.error.isNull());
        QVERIFY2(again.milliseconds >= kConnect.count() - 50, qPrintable(QString::number(again.milliseconds)));
    }

    // Outside a flow nothing is remembered: each request waits for the server itself.
    void withoutAFlowEveryRequestTries() {
        BlackHole hole;
        QVERIFY(!UnreachableHosts::current());
        for (int i = 0; i < 2; ++i) {
            const Attempt attempt = fetch(at(hole.port()));
            QVERIFY(!attempt.error.isNull());
            QVERIFY2(attempt.milliseconds >= kConnect.count() - 50,
                     qPrintable(QString::number(attempt.milliseconds)));
        }
    }

    void refusedServerIsRemembered() {
        const quint16 port = TestServer::unusedLocalPort();
        const UnreachableHosts::FlowScope flow;
        const Attempt first = fetch(at(port));
        QVERIFY(first.error.contains(QStringLiteral("refused"), Qt::CaseInsensitive));
        QCOMPARE(UnreachableHosts::current()->failureFor(at(port, QStringLiteral("/x"))),
                 std::optional<QString>(first.error));
        QCOMPARE(fetch(at(port)).error, first.error);
    }

    // Only a failure to connect counts: a server that answers, even with an error status or a
    // broken body, is asked again.
    void answeringServerIsNotRemembered() {
        const UnreachableHosts::FlowScope flow;
        QVERIFY(fetch(server_->url(QStringLiteral("/status/500/m.json"))).error.isNull());
        QVERIFY(!fetch(server_->url(QStringLiteral("/truncated")), true).error.isNull());
        QCOMPARE(UnreachableHosts::current()->failureFor(server_->url(QStringLiteral("/m.json"))),
                 std::nullopt);
        QVERIFY(fetch(server_->url(QStringLiteral("/m.json"))).error.isNull());
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
