#include "TestRequirements.h"
#include "TestServer.h"

#include <QProcess>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QSslSocket>
#include <QTest>

#include <memory>

namespace {

// Sends one raw HTTPS request for `path`, so the harness is checked without the client under
// test; false when no encrypted connection came about.
bool sendGet(QSslSocket& socket, quint16 port, const QByteArray& path) {
    QSslConfiguration ssl = socket.sslConfiguration();
    ssl.setCaCertificates(QSslCertificate::fromPath(TestServer::caPath()));
    socket.setSslConfiguration(ssl);
    socket.connectToHostEncrypted(QStringLiteral("127.0.0.1"), port);
    if (!socket.waitForEncrypted(60000))
        return false;
    socket.write("GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n");
    return true;
}

// One raw HTTPS exchange, to its end.
QByteArray rawGet(quint16 port, const QByteArray& path) {
    QSslSocket socket;
    if (!sendGet(socket, port, path))
        return {};
    QByteArray answer;
    while (socket.waitForReadyRead(60000))
        answer += socket.readAll();
    return answer + socket.readAll();
}

QByteArray bodyOf(const QByteArray& answer) {
    return answer.mid(answer.indexOf("\r\n\r\n") + 4);
}

// Whether openssl, run as `command`, verifies the server's chain against /etc/ssl/certs.
bool opensslVerifies(const QStringList& command) {
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(command.first(), command.mid(1));
    process.closeWriteChannel();
    return process.waitForFinished(30000) && process.exitStatus() == QProcess::NormalExit &&
           process.exitCode() == 0;
}

} // namespace

class TestNginxHarness : public QObject {
    Q_OBJECT

    std::unique_ptr<TestServer> server;

private slots:
    void initTestCase() {
        ZENTHO_REQUIRE(nginx);
        server = std::make_unique<TestServer>();
        server->writeFile(QStringLiteral("a/b.txt"), "hello");
    }

    void servesTheDocumentRootOnBothListeners() {
        QVERIFY(rawGet(server->httpsPort(), "/a/b.txt").startsWith("HTTP/1.1 200"));
        QCOMPARE(bodyOf(rawGet(server->httpsPort(), "/a/b.txt")), QByteArray("hello"));
        QVERIFY(rawGet(server->httpsPort(), "/a/none.txt").startsWith("HTTP/1.1 404"));
        QVERIFY(server->url("/x").toString().startsWith(QStringLiteral("https://127.0.0.1:")));
        QVERIFY(server->httpUrl("/x").toString().startsWith(QStringLiteral("http://127.0.0.1:")));
    }

    void truncatedAnnouncesMoreThanItSends() {
        const QByteArray answer = rawGet(server->httpsPort(), "/truncated");
        QVERIFY(answer.startsWith("HTTP/1.1 200"));
        QVERIFY(answer.contains("Content-Length: " +
                                QByteArray::number(TestServer::truncatedContentLength())));
        // nginx gives up at the first short read, so the body ends at or before the cut.
        const qsizetype sent = bodyOf(answer).size();
        QVERIFY2(sent > 0 && sent <= TestServer::truncatedBytesOnDisk(), qPrintable(QString::number(sent)));
    }

    // Once its 64 KiB are in, the answer is still going: nginx has not finished the request (it
    // would have logged it by the time it logs a later one) and has sent nothing more.
    void stallSendsItsHeadThenNothing() {
        QSslSocket socket;
        QVERIFY(sendGet(socket, server->httpsPort(), "/stall"));
        QByteArray answer;
        QVERIFY(QTest::qWaitFor(
            [&] {
                answer += socket.readAll();
                return answer.contains(QByteArray(65536, 's'));
            },
            60000));
        QVERIFY(answer.startsWith("HTTP/1.1 200"));
        server->awaitLogged();
        QVERIFY(!server->accessLog().contains(QStringLiteral("\"GET /stall ")));
        QCOMPARE(socket.state(), QAbstractSocket::ConnectedState);
        answer += socket.readAll();
        QVERIFY(!answer.contains("end"));
    }

    void statusPathsKeepTheFilesBody() {
        const QByteArray answer = rawGet(server->httpsPort(), "/status/500/a/b.txt");
        QVERIFY(answer.startsWith("HTTP/1.1 500"));
        QVERIFY(answer.contains("hello"));
    }

    void caFolderMakesARealProgramTrustTheServer() {
        ZENTHO_REQUIRE(root);
        const QString connect = QStringLiteral("127.0.0.1:%1").arg(server->httpsPort());
        const QStringList check{QStringLiteral("/usr/bin/openssl"), QStringLiteral("s_client"),
                                QStringLiteral("-connect"), connect,
                                QStringLiteral("-verify_return_error"),
                                QStringLiteral("-verify_ip"), QStringLiteral("127.0.0.1"),
                                QStringLiteral("-CApath"), QStringLiteral("/etc/ssl/certs")};
        QVERIFY2(!opensslVerifies(check), "the test CA must not be trusted system-wide");
        QVERIFY(opensslVerifies(server->commandTrustingCa(check.first(), check.mid(1))));
        QVERIFY(QFile::exists(server->trustedCertFolder() + QStringLiteral("/ca-certificates.crt")));
    }

    void stopsNginxWhenDestroyed() {
        const quint16 port = server->httpsPort();
        server.reset();
        QSslSocket socket;
        socket.connectToHost(QStringLiteral("127.0.0.1"), port);
        QVERIFY(!socket.waitForConnected(60000));
        QCOMPARE(socket.error(), QAbstractSocket::ConnectionRefusedError);
    }
};

QTEST_MAIN(TestNginxHarness)
#include "TestNginxHarness.moc"
