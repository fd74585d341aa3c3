#include "TestServer.h"

#include <QElapsedTimer>
#include <QProcess>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QSslSocket>
#include <QTest>

#include <memory>

namespace {

// One raw HTTPS exchange, so the harness is checked without the client under test.
QByteArray rawGet(quint16 port, const QByteArray& path, int waitMs = 10000) {
    QSslSocket socket;
    QSslConfiguration ssl = socket.sslConfiguration();
    ssl.setCaCertificates(QSslCertificate::fromPath(TestServer::caPath()));
    socket.setSslConfiguration(ssl);
    socket.connectToHostEncrypted(QStringLiteral("127.0.0.1"), port);
    if (!socket.waitForEncrypted(10000))
        return {};
    socket.write("GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n");
    QByteArray answer;
    while (socket.waitForReadyRead(waitMs))
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

    void stallSendsItsHeadThenNothing() {
        QElapsedTimer clock;
        clock.start();
        const QByteArray answer = rawGet(server->httpsPort(), "/stall", 2000);
        QVERIFY(answer.startsWith("HTTP/1.1 200"));
        QVERIFY(answer.contains(QByteArray(65536, 's')));
        QVERIFY(!answer.contains("end"));
        QVERIFY(clock.elapsed() >= 2000);
    }

    void statusPathsKeepTheFilesBody() {
        const QByteArray answer = rawGet(server->httpsPort(), "/status/500/a/b.txt");
        QVERIFY(answer.startsWith("HTTP/1.1 500"));
        QVERIFY(answer.contains("hello"));
    }

    void caFolderMakesARealProgramTrustTheServer() {
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
        QVERIFY(!socket.waitForConnected(2000));
    }
};

QTEST_MAIN(TestNginxHarness)
#include "TestNginxHarness.moc"
