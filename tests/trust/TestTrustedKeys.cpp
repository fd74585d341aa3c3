// The small set of keys a launcher trusts for one purpose: read from the PEM text the build
// compiles in, accepting a signature by any of them and by nothing else.

#include "TestFiles.h"

#include "trust/BundleSignature.h"
#include "trust/TrustedKeys.h"

#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

namespace {

std::string pemOf(const Ed25519Key& key) {
    return key.publicPem();
}

} // namespace

class TestTrustedKeys : public QObject {
    Q_OBJECT

    Ed25519Key current_ = Ed25519Key::generate();
    Ed25519Key next_ = Ed25519Key::generate();
    Ed25519Key other_ = Ed25519Key::generate();

private slots:
    void aSignatureByAnyOfTheKeysCounts() {
        const TrustedKeys keys = TrustedKeys::fromPem(pemOf(current_) + "\n" + pemOf(next_));
        QCOMPARE(keys.size(), std::size_t(2));
        QVERIFY(keys.verify("message", current_.sign("message")));
        QVERIFY(keys.verify("message", next_.sign("message")));
        QVERIFY(!keys.verify("message", other_.sign("message")));
        QVERIFY(!keys.verify("massage", next_.sign("message")));
        QVERIFY(!keys.verify("message", std::string(64, '\0')));
    }

    void noKeysTrustNothing() {
        QVERIFY(TrustedKeys::fromPem("").empty());
        QVERIFY(TrustedKeys::fromPem(" \n\n").empty());
        QVERIFY(!TrustedKeys().verify("message", current_.sign("message")));
    }

    void anythingButPublicKeysIsRefused_data() {
        QTest::addColumn<QByteArray>("pem");
        const QByteArray good = QByteArray::fromStdString(pemOf(current_));
        QTest::newRow("a private key") << QByteArray::fromStdString(current_.privatePem());
        QTest::newRow("a public and a private key") << good + QByteArray::fromStdString(next_.privatePem());
        QTest::newRow("text between keys") << good + "and also\n" + good;
        QTest::newRow("a block that does not end") << good.left(good.size() - 10);
        QTest::newRow("a damaged key") << QByteArray(good).replace(27, 4, "AAAA");
    }
    void anythingButPublicKeysIsRefused() {
        QFETCH(QByteArray, pem);
        QVERIFY_THROWS_EXCEPTION(KeyError, TrustedKeys::fromPem(pem.toStdString()));
    }

    void aKeyOfAnotherKindIsRefused() {
        QTemporaryDir dir;
        const QString key = dir.filePath(QStringLiteral("ec.pem"));
        QProcess openssl;
        openssl.start(QStringLiteral("openssl"), {QStringLiteral("genpkey"), QStringLiteral("-algorithm"), QStringLiteral("EC"),
                                                  QStringLiteral("-pkeyopt"), QStringLiteral("ec_paramgen_curve:P-256"),
                                                  QStringLiteral("-out"), key});
        QVERIFY(openssl.waitForFinished() && openssl.exitCode() == 0);
        openssl.start(QStringLiteral("openssl"), {QStringLiteral("pkey"), QStringLiteral("-in"), key, QStringLiteral("-pubout")});
        QVERIFY(openssl.waitForFinished() && openssl.exitCode() == 0);
        const QByteArray ecPublic = openssl.readAllStandardOutput();
        QVERIFY(ecPublic.startsWith("-----BEGIN PUBLIC KEY-----"));
        QVERIFY_THROWS_EXCEPTION(KeyError, TrustedKeys::fromPem(ecPublic.toStdString()));
        QVERIFY_THROWS_EXCEPTION(KeyError, TrustedKeys::fromFiles({QFile::encodeName(key).toStdString()}));
    }

    void keyFilesCountByTheirPublicHalf() {
        QTemporaryDir dir;
        const QString privateFile = dir.filePath(QStringLiteral("current.key"));
        const QString publicFile = dir.filePath(QStringLiteral("next.key.pub"));
        TestFiles::writeFile(privateFile, QByteArray::fromStdString(current_.privatePem()));
        TestFiles::writeFile(publicFile, QByteArray::fromStdString(next_.publicPem()));
        const TrustedKeys keys = TrustedKeys::fromFiles(
            {QFile::encodeName(privateFile).toStdString(), QFile::encodeName(publicFile).toStdString()});
        QCOMPARE(keys.size(), std::size_t(2));
        QVERIFY(keys.verify("m", current_.sign("m")));
        QVERIFY(keys.verify("m", next_.sign("m")));
        QVERIFY_THROWS_EXCEPTION(KeyError, TrustedKeys::fromFiles({"/nonexistent/key.pub"}));
    }

    // A rotation: bundles sealed with the next key verify once it is trusted beside the current.
    void aSealByTheNextKeyVerifiesOnceBothAreTrusted() {
        QTemporaryDir dir;
        const QString bundle = dir.filePath(QStringLiteral("ZenthoLauncher.app"));
        TestFiles::writeScript(bundle + QStringLiteral("/Contents/MacOS/ZenthoLauncher"), "exit 0\n");
        BundleSignature::sign(QFile::encodeName(bundle).toStdString(), next_);
        const std::string path = QFile::encodeName(bundle).toStdString();
        QCOMPARE(BundleSignature::verify(path, TrustedKeys::fromPem(pemOf(current_))),
                 std::string("Contents/_CodeSignature/Signature: not signed by a trusted key"));
        QCOMPARE(BundleSignature::verify(path, TrustedKeys::fromPem(pemOf(current_) + pemOf(next_))), std::string());
    }
};

QTEST_GUILESS_MAIN(TestTrustedKeys)
#include "TestTrustedKeys.moc"
