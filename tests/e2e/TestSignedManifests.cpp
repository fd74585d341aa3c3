// Signed manifests on the real launcher. A launcher built to require them (the same core linked
// with the two test manifest keys, the current and the next) accepts a game and a launcher
// manifest signed by either key and refuses unsigned, forged, foreign-key and expired ones, going
// on as for any manifest failure. The launcher players get by default never asks for a signature.

#include "LauncherBundles.h"
#include "LauncherStorage.h"
#include "LauncherTestScope.h"
#include "ManifestJson.h"
#include "RealLauncher.h"
#include "ReleaseTool.h"
#include "TestFiles.h"
#include "TestRequirements.h"
#include "TestServer.h"

#include "formats/ManifestExpiry.h"
#include "trust/Ed25519Key.h"
#include "trust/ManifestSignature.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTest>

#include <optional>

using ReleaseTool::Run;

namespace {

QString signedBundle() {
    return LauncherBundles::buildDir() + QStringLiteral("/e2e-bundles/signed/ZenthoLauncher.app");
}

Ed25519Key keyFile(const QString& path) {
    return Ed25519Key::fromFile(QFile::encodeName(path).toStdString());
}

const QString kLauncherArchive = QStringLiteral("/release/launcher-0.2.0.tar.gz");

} // namespace

class TestSignedManifests : public QObject {
    Q_OBJECT

    // The test function's folder and what its launchers leave behind.
    std::optional<LauncherTestScope> scope_;

    QString path(const QString& relative) const { return scope_->path(relative); }
    LauncherStorage storage() const { return LauncherStorage(path(QStringLiteral("data"))); }

    // Serves `json` at /release/`name` with a signature beside it made as `how` says.
    static void serveSigned(TestServer& server, const QString& name, QByteArray json, const QString& how) {
        const QString file = QStringLiteral("release/") + name;
        if (how == QLatin1String("expired")) {
            json.chop(2); // "}\n"
            json += ",\"expires\":\"" + ManifestExpiry::text(QDateTime::currentDateTimeUtc().addSecs(-60)).toUtf8() + "\"}\n";
        }
        const QString signer = how == QLatin1String("next")      ? ReleaseTool::testManifestKeyNext()
                               : how == QLatin1String("foreign") ? LauncherBundles::testKey()
                                                                 : ReleaseTool::testManifestKey();
        const QByteArray signature = QByteArray::fromStdString(keyFile(signer).sign(json.toStdString()));
        if (how == QLatin1String("forged"))
            json.replace("\"version\":\"0.2.0\"", "\"version\":\"0.2.0\" ");
        server.writeFile(file, json);
        QFile::remove(server.documentRoot() + QLatin1Char('/') + file + QStringLiteral(".sig"));
        if (how != QLatin1String("unsigned"))
            server.writeFile(file + QStringLiteral(".sig"), signature);
    }

    // Game 0.2.0 packed by the tool, its manifest then served signed as `how` says.
    void publishGame(TestServer& server, const QString& how) {
        const QString game = path(QStringLiteral("game"));
        TestFiles::makeFolder(game);
        QFile::copy(ReleaseTool::standinGame020(), game + QStringLiteral("/zentho"));
        const Run packed = ReleaseTool::packGame(game, QStringLiteral("0.2.0"), server.url(QStringLiteral("/release")).toString(),
                                                 server.documentRoot() + QStringLiteral("/release"));
        QVERIFY2(packed.ok(), packed.errors.constData());
        serveSigned(server, QStringLiteral("macos-arm64-manifest.json"),
                    TestFiles::readFile(packed.line(QStringLiteral("manifest"))), how);
    }

    // A launcher release 0.2.0 whose archive never matches its digest: a launcher that accepts
    // the manifest downloads the archive and stops there, one that refuses it never asks.
    static void publishUnusableLauncher(TestServer& server, const QString& how) {
        server.writeFile(kLauncherArchive.mid(1), "not the archive the manifest describes");
        const QByteArray json =
            ManifestJson::launcher(QStringLiteral("0.2.0"), server.url(kLauncherArchive).toString(), QString(64, QLatin1Char('0')))
                .lineEnd();
        serveSigned(server, QStringLiteral("macos-launcher-arm64-manifest.json"), json, how);
    }

    // Starts the launcher of `bundle` for an invite with both manifests on `server`, waits for it
    // to quit and returns the record of the game it started (which cleanup() ends).
    QByteArray pressPlay(TestServer& server, const QString& bundle) {
        RealLauncher launcher(bundle, storage().dataHome());
        launcher.useManifests(server.url(QStringLiteral("/release/macos-arm64-manifest.json")).toString(),
                              server.url(QStringLiteral("/release/macos-launcher-arm64-manifest.json")).toString());
        const QString record = path(QStringLiteral("record"));
        launcher.recordGameStartIn(record);
        launcher.start(server, QStringLiteral("zentho://invite/signed"));
        const std::optional<int> exit = launcher.waitForExit();
        const QByteArray recorded = RealLauncher::waitForGameRecord(record);
        if (exit != std::optional<int>(0) || recorded.isEmpty())
            qWarning("launcher: %s", launcher.errors().constData());
        return recorded;
    }
    static int requests(const TestServer& server, const QString& path) {
        return server.accessLog().count(QStringLiteral("GET ") + path + QLatin1Char(' '));
    }

private slots:
    void initTestCase() {
        ZENTHO_REQUIRE(root);
        ZENTHO_REQUIRE(nginx);
        QVERIFY(RealLauncher::becomeSubreaper());
        QCOMPARE(RealLauncher::versionOf(signedBundle()), QStringLiteral("0.1.190"));
    }
    void init() { scope_.emplace(); }
    void cleanup() { scope_.reset(); }

    void bothManifestsMustBeSignedByATrustedKey_data() {
        QTest::addColumn<QString>("how");
        QTest::addColumn<bool>("accepted");
        QTest::newRow("current key") << "current" << true;
        QTest::newRow("next key") << "next" << true;
        QTest::newRow("unsigned") << "unsigned" << false;
        QTest::newRow("forged") << "forged" << false;
        QTest::newRow("foreign key") << "foreign" << false;
        QTest::newRow("expired") << "expired" << false;
    }
    void bothManifestsMustBeSignedByATrustedKey() {
        QFETCH(QString, how);
        QFETCH(bool, accepted);
        TestServer server;
        publishGame(server, how);
        publishUnusableLauncher(server, how);

        const QByteArray recorded = pressPlay(server, signedBundle());
        // The game manifest: installed and started, or refused and the seed runtime started.
        QVERIFY2(recorded.startsWith(accepted ? "version=0.2.0\n" : "version=0.1.190\n"), recorded.constData());
        QVERIFY(recorded.contains("arg=zentho://invite/signed\n"));
        QCOMPARE(QFileInfo::exists(storage().build(QStringLiteral("0.2.0"))), accepted);
        // The launcher manifest: its archive fetched only when the manifest was accepted.
        QCOMPARE(requests(server, kLauncherArchive), accepted ? 1 : 0);
        QCOMPARE(requests(server, QStringLiteral("/release/macos-arm64-manifest.json.sig")), 1);
        QCOMPARE(requests(server, QStringLiteral("/release/macos-launcher-arm64-manifest.json.sig")), 1);
    }

    // Without ZENTHO_MANIFEST_PUBLIC_KEYS nothing beyond the manifests is fetched: a forged
    // signature and a date that has passed change nothing.
    void theDefaultLauncherNeverAsksForASignature() {
        TestServer server;
        publishGame(server, QStringLiteral("expired"));
        QByteArray game = TestFiles::readFile(server.documentRoot() + QStringLiteral("/release/macos-arm64-manifest.json"));
        server.writeFile(QStringLiteral("release/macos-arm64-manifest.json.sig"), QByteArray(64, 'x'));
        publishUnusableLauncher(server, QStringLiteral("current"));

        const QByteArray recorded = pressPlay(server, LauncherBundles::builtBundle());
        QVERIFY2(recorded.startsWith("version=0.2.0\n"), recorded.constData());
        QVERIFY(game.contains("\"expires\""));
        QCOMPARE(requests(server, kLauncherArchive), 1);
        QCOMPARE(requests(server, QStringLiteral("/release/macos-arm64-manifest.json")), 1);
        QVERIFY2(!server.accessLog().contains(QStringLiteral(".sig")), qPrintable(server.accessLog()));
    }

    // A real update of the signed launcher, its manifest signed with the next key by pack.
    void theSignedLauncherUpdatesItselfUnderTheNextKey() {
        TestServer server;
        // Made after the server, whose nginx is the test's own: what comes after it is what the
        // launchers leave.
        AdoptedProcesses leftBehind;
        const QString installed = path(QStringLiteral("Applications/ZenthoLauncher.app"));
        TestFiles::makeFolder(path(QStringLiteral("Applications")));
        ReleaseTool::copyTree(signedBundle(), installed);
        TestFiles::makeFolder(path(QStringLiteral("src")));
        const QString bundle = ReleaseTool::sealedCopy(ReleaseTool::launcherBundle020(), path(QStringLiteral("src/ZenthoLauncher.app")));
        const Run packed = ReleaseTool::packLauncher(bundle, QStringLiteral("0.2.0"), server.url(QStringLiteral("/release")).toString(),
                                                     server.documentRoot() + QStringLiteral("/release"),
                                                     {QStringLiteral("--sign-key"), ReleaseTool::testManifestKeyNext()});
        QVERIFY2(packed.ok(), packed.errors.constData());

        RealLauncher launcher(installed, storage().dataHome());
        launcher.useManifests(server.url(QStringLiteral("/release/macos-arm64-manifest.json")).toString(),
                              server.url(QStringLiteral("/release/macos-launcher-arm64-manifest.json")).toString());
        const QString record = path(QStringLiteral("record"));
        launcher.recordGameStartIn(record);
        launcher.start(server, QStringLiteral("zentho://invite/updated"));
        QCOMPARE(launcher.waitForExit(), std::optional<int>(0));

        // The finish script swaps the bundles and starts the new launcher from the old path. It
        // finds no game release, starts its own seed game with the invite and quits: the game
        // is then the only process the launchers left.
        const QByteArray recorded = RealLauncher::waitForGameRecord(record, 60000);
        QVERIFY2(recorded.startsWith("version=0.2.0\ncwd=" + QFile::encodeName(installed) +
                                     "/Contents/Resources/SeedRuntime\narg=zentho://invite/updated\n"),
                 (recorded + launcher.errors()).constData());
        QCOMPARE(RealLauncher::versionOf(installed), QStringLiteral("0.2.0"));
        const qint64 game = RealLauncher::recordedPid(recorded);
        QVERIFY(QTest::qWaitFor([&] { return leftBehind.running() == QList<qint64>{game}; }, 30000));
    }
};

QTEST_MAIN(TestSignedManifests)
#include "TestSignedManifests.moc"
