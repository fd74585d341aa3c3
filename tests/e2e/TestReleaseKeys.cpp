// The publisher's tool, zentho-release: its overview, the Ed25519 key pairs it makes and the
// bundle seals it writes, checked by the verifier that ships in launcher bundles.

#include "LauncherBundles.h"
#include "ReleaseTool.h"
#include "TestFiles.h"

#include "trust/Ed25519Key.h"

#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <sys/stat.h>
#include <unistd.h>

using ReleaseTool::Run;

using TestFiles::modeOf;

class TestReleaseKeys : public QObject {
    Q_OBJECT

    QTemporaryDir* tmp_ = nullptr;

    QString path(const QString& relative) const { return tmp_->filePath(relative); }
    QString testPublicKey() const { return LauncherBundles::testKey() + QStringLiteral(".pub"); }

private slots:
    void initTestCase() {
        QVERIFY2(QFileInfo::exists(LauncherBundles::releaseTool()), "zentho-release is not built");
    }
    void init() { tmp_ = new QTemporaryDir; }
    void cleanup() { delete tmp_; }

    void helpNamesEveryCommand() {
        const Run help = ReleaseTool::run({QStringLiteral("--help")});
        QCOMPARE(help.exitCode, 0);
        for (const char* command : {"keygen", "sign-bundle", "pack", "verify", "publish"})
            QVERIFY2(help.output.contains(QByteArray("  ") + command + ' '), help.output.constData());
        for (const QString& command : {QStringLiteral("pack"), QStringLiteral("verify"), QStringLiteral("publish")}) {
            const Run usage = ReleaseTool::run({command, QStringLiteral("--help")});
            QCOMPARE(usage.exitCode, 0);
            QVERIFY(usage.output.startsWith("usage: zentho-release " + command.toUtf8()));
        }
    }
    void anUnknownCommandFailsWithOneLine() {
        const Run unknown = ReleaseTool::run({QStringLiteral("unpublish")});
        QCOMPARE(unknown.exitCode, 2);
        QVERIFY(unknown.failedWithOneLine());
        QVERIFY(unknown.errors.contains("unknown command \"unpublish\""));
        QCOMPARE(ReleaseTool::run({}).exitCode, 2);
    }

    void keygenWritesAPairWithAPrivateKeyOnlyTheOwnerReads() {
        const mode_t previous = ::umask(0); // the modes must not depend on the caller's umask
        const Run made = ReleaseTool::run({QStringLiteral("keygen"), path(QStringLiteral("release.key"))});
        ::umask(previous);
        QVERIFY2(made.ok(), made.errors.constData());
        QCOMPARE(modeOf(path(QStringLiteral("release.key"))), 0600);
        QCOMPARE(modeOf(path(QStringLiteral("release.key.pub"))), 0644);
        const Ed25519Key privateKey = Ed25519Key::fromFile(path(QStringLiteral("release.key")).toStdString());
        const Ed25519Key publicKey = Ed25519Key::fromFile(path(QStringLiteral("release.key.pub")).toStdString());
        QVERIFY(privateKey.hasPrivateKey());
        QVERIFY(!publicKey.hasPrivateKey());
        QVERIFY(publicKey.verify("message", privateKey.sign("message")));
        QVERIFY(!publicKey.verify("massage", privateKey.sign("message")));
    }
    void keygenKeepsExistingKeysUnlessForced() {
        const QString key = path(QStringLiteral("release.key"));
        QVERIFY(ReleaseTool::run({QStringLiteral("keygen"), key}).ok());
        const QByteArray first = TestFiles::readFile(key);
        const Run again = ReleaseTool::run({QStringLiteral("keygen"), key});
        QCOMPARE(again.exitCode, 1);
        QVERIFY(again.failedWithOneLine());
        QVERIFY(again.errors.contains("already exists; use --force"));
        QCOMPARE(TestFiles::readFile(key), first);

        const Run forced = ReleaseTool::run({QStringLiteral("keygen"), QStringLiteral("--force"), key});
        QVERIFY2(forced.ok(), forced.errors.constData());
        QVERIFY(TestFiles::readFile(key) != first);
        QCOMPARE(modeOf(key), 0600);
    }
    void keygenRefusesBadCommandLines() {
        QCOMPARE(ReleaseTool::run({QStringLiteral("keygen")}).exitCode, 2);
        QCOMPARE(ReleaseTool::run({QStringLiteral("keygen"), QStringLiteral("a"), QStringLiteral("b")}).exitCode, 2);
        QCOMPARE(ReleaseTool::run({QStringLiteral("keygen"), QStringLiteral("--fast"), path("k")}).exitCode, 2);
        // A folder where the public key should go: nothing is written, not even the private key.
        TestFiles::makeFolder(path(QStringLiteral("k.pub")));
        const Run folder = ReleaseTool::run({QStringLiteral("keygen"), QStringLiteral("--force"), path("k")});
        QCOMPARE(folder.exitCode, 1);
        QVERIFY(folder.failedWithOneLine());
        QVERIFY(!QFileInfo::exists(path(QStringLiteral("k"))));
    }

    void signBundleMakesASealTheVerifierAccepts() {
        const QString bundle = ReleaseTool::sealedCopy(LauncherBundles::builtBundle(), path(QStringLiteral("ZenthoLauncher.app")));
        QVERIFY(QFileInfo::exists(bundle + QStringLiteral("/Contents/_CodeSignature/Signature")));
        QProcess verifier;
        verifier.start(LauncherBundles::testVerifier(),
                       {QStringLiteral("--verify"), QStringLiteral("--deep"), QStringLiteral("--strict"), bundle});
        QVERIFY(verifier.waitForFinished(60000));
        QCOMPARE(verifier.exitCode(), 0);
    }
    void aOneByteChangeAfterSigningIsRefusedNamingTheFile() {
        const QString bundle = ReleaseTool::sealedCopy(LauncherBundles::builtBundle(), path(QStringLiteral("ZenthoLauncher.app")));
        ReleaseTool::flipOneByte(ReleaseTool::seedRuntimeOf(bundle));
        QProcess verifier;
        verifier.start(LauncherBundles::testVerifier(),
                       {QStringLiteral("--verify"), QStringLiteral("--deep"), QStringLiteral("--strict"), bundle});
        QVERIFY(verifier.waitForFinished(60000));
        QCOMPARE(verifier.exitCode(), 1);
        QCOMPARE(verifier.readAllStandardError(),
                 QByteArray("Contents/Resources/SeedRuntime/zentho: content changed\n"));
    }
    void signBundleRefusesBadInput() {
        const QString bundle = path(QStringLiteral("plain.app"));
        ReleaseTool::copyTree(LauncherBundles::builtBundle(), bundle);
        const Run noKey = ReleaseTool::run({QStringLiteral("sign-bundle"), bundle});
        QCOMPARE(noKey.exitCode, 2);
        QVERIFY(noKey.failedWithOneLine());
        const Run publicOnly = ReleaseTool::run({QStringLiteral("sign-bundle"), QStringLiteral("--key"), testPublicKey(), bundle});
        QCOMPARE(publicOnly.exitCode, 1);
        QVERIFY(publicOnly.failedWithOneLine());
        const Run missing = ReleaseTool::run({QStringLiteral("sign-bundle"), QStringLiteral("--key"),
                                              LauncherBundles::testKey(), path(QStringLiteral("none.app"))});
        QCOMPARE(missing.exitCode, 1);
        QVERIFY(missing.failedWithOneLine());
    }

    // A seal in a folder that is no launcher bundle would change it and could be packed later.
    void signBundleRefusesAFolderThatIsNoLauncherBundle() {
        const QString game = path(QStringLiteral("game"));
        TestFiles::makeBuild(game);
        const Run refused = ReleaseTool::run({QStringLiteral("sign-bundle"), QStringLiteral("--key"),
                                              LauncherBundles::testKey(), game});
        QCOMPARE(refused.exitCode, 1);
        QCOMPARE(refused.errors, "zentho-release sign-bundle: " + QFile::encodeName(game) +
                                     ": not a launcher bundle (no executable Contents/MacOS/ZenthoLauncher)\n");
        QVERIFY(!QFileInfo::exists(game + QStringLiteral("/Contents")));

        // Its twin: the same folder with a launcher executable is sealed.
        TestFiles::writeScript(game + QStringLiteral("/Contents/MacOS/ZenthoLauncher"), "exit 0\n");
        const Run sealed = ReleaseTool::run({QStringLiteral("sign-bundle"), QStringLiteral("--key"),
                                             LauncherBundles::testKey(), game});
        QVERIFY2(sealed.ok(), sealed.errors.constData());
        QVERIFY(QFileInfo::exists(game + QStringLiteral("/Contents/_CodeSignature/Signature")));
    }

    // Rotation: a verifier built to trust the current and the next key accepts a seal by either,
    // and by nothing else.
    void aVerifierTrustingTwoKeysAcceptsASealByEither() {
        const QString nextKey = LauncherBundles::buildDir() + QStringLiteral("/signing/test-next.key");
        for (const QString& key : {LauncherBundles::testKey(), nextKey, LauncherBundles::developmentKey()}) {
            const QString bundle = path(QFileInfo(key).baseName() + QStringLiteral("/ZenthoLauncher.app"));
            TestFiles::makeFolder(QFileInfo(bundle).absolutePath());
            ReleaseTool::copyTree(LauncherBundles::builtBundle(), bundle);
            QVERIFY(LauncherBundles::seal(bundle, key));
            QProcess verifier;
            verifier.start(LauncherBundles::testVerifier(),
                           {QStringLiteral("--verify"), QStringLiteral("--deep"), QStringLiteral("--strict"), bundle});
            QVERIFY(verifier.waitForFinished(60000));
            const bool trusted = key != LauncherBundles::developmentKey();
            QCOMPARE(verifier.exitCode(), trusted ? 0 : 1);
            QCOMPARE(verifier.readAllStandardError(),
                     trusted ? QByteArray() : QByteArray("Contents/_CodeSignature/Signature: not signed by a trusted key\n"));
        }
    }
};

QTEST_MAIN(TestReleaseKeys)
#include "TestReleaseKeys.moc"
