// The launcher's update of itself, over a real nginx with real archives, the real tar, the real
// bundle verifier (the build that trusts the test key) and the real finish script.

#include "LauncherBundles.h"
#include "LauncherUpdateFixture.h"
#include "TestArchives.h"
#include "TestFiles.h"
#include "TestRequirements.h"
#include "TestServer.h"

#include "errors/LauncherError.h"
#include "formats/ReleaseManifest.h"
#include "identity/LauncherVersion.h"
#include "net/HttpClient.h"
#include "platform/FileManager.h"
#include "process/ChildReaper.h"
#include "update/FinishScript.h"
#include "update/LauncherUpdater.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QSet>
#include <QTest>

#include <memory>

namespace {

const QString kUuid = QStringLiteral("[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}");

} // namespace

class TestLauncherUpdater : public QObject {
    Q_OBJECT

private:
    std::unique_ptr<TestServer> server_;
    std::unique_ptr<LauncherUpdateFixture> f_;

    LauncherUpdateFixture& f() { return *f_; }

    void expectError(const QUrl& manifest, const LauncherError& expected) {
        const std::optional<LauncherError> error = f().updateError(manifest);
        QVERIFY(error.has_value());
        QCOMPARE(error->errorDescription(), expected.errorDescription());
        QVERIFY(*error == expected);
        QVERIFY(f().nothingStarted());
    }

private slots:
    void initTestCase() {
        ZENTHO_REQUIRE(nginx);
        TestServer::trustInThisProcess();
        try {
            server_ = std::make_unique<TestServer>();
        } catch (const std::exception& error) {
            QFAIL(error.what());
        }
        QCOMPARE(launcherVersion(), QStringLiteral("0.1.190"));
    }

    void init() { f_ = std::make_unique<LauncherUpdateFixture>(*server_); }

    void cleanup() {
        // A script that is still swapping finishes, and is collected, before its folder goes.
        QTRY_COMPARE_WITH_TIMEOUT(ChildReaper::pendingCount(), 0, 60000);
        f_.reset();
    }

    void sameVersionReturnsFalseWithoutDownloading() {
        const QUrl manifest = f().publishManifest(LauncherUpdateFixture::manifestJson(
            QStringLiteral("0.1.190"), QStringLiteral("macos-launcher-arm64"),
            QStringLiteral("https://127.0.0.1:1/nothing-here"), QStringLiteral("not a digest"),
            QStringLiteral("Nowhere.app")));
        QCOMPARE(f().update(manifest), false);
        QVERIFY(f().statuses().isEmpty());
        QVERIFY(!QFileInfo::exists(f().launcherRoot()));
        QVERIFY(f().nothingStarted());
    }

    void anyOtherVersionTextIsDownloaded() {
        // The same nonsense with a version that differs by one trailing blank is fetched.
        const QUrl manifest = f().publishManifest(LauncherUpdateFixture::manifestJson(
            QStringLiteral("0.1.190 "), QStringLiteral("macos-launcher-arm64"),
            server_->url(QStringLiteral("/nothing-here.tar.gz")).toString(),
            QStringLiteral("not a digest"), QStringLiteral("Nowhere.app")));
        expectError(manifest, LauncherError::downloadFailed());
        QCOMPARE(f().statuses(), QStringList{LauncherUpdater::downloadingStatus()});
    }

    void olderVersionIsInstalledAndSwappedAfterTheLauncherEnds() {
        QProcess running; // the old launcher, until the test ends it
        running.start(QStringLiteral("/bin/sleep"), {QStringLiteral("3600")});
        QVERIFY(running.waitForStarted());
        f().platform().pid = running.processId();

        QCOMPARE(f().update(f().publishBundle(f().makeNewBundle(), QStringLiteral("0.1.100"))), true);
        QCOMPARE(f().statuses(), (QStringList{QStringLiteral("Downloading launcher update..."),
                                             QStringLiteral("Verifying launcher update...")}));

        const QStringList staging = f().leftovers(QStringLiteral("launcher-staging-"));
        const QStringList scripts = f().leftovers(QStringLiteral("finish-launcher-update-"));
        QCOMPARE(staging.size(), 1);
        QCOMPARE(scripts.size(), 1);
        QVERIFY(QRegularExpression(QLatin1Char('^') + QStringLiteral("launcher-staging-") + kUuid + QLatin1Char('$'))
                    .match(staging.first()).hasMatch());
        QVERIFY(QRegularExpression(QStringLiteral("^finish-launcher-update-") + kUuid + QStringLiteral("\\.sh$"))
                    .match(scripts.first()).hasMatch());
        const QString script = f().launcherRoot() + QLatin1Char('/') + scripts.first();
        QCOMPARE(TestFiles::modeOf(script), 0755);
        QCOMPARE(TestFiles::readFile(script), FinishScript::textForThisPlatform());

        // Until the old launcher has gone, nothing moves.
        QVERIFY(LauncherBundles::finishScriptWaiting(script));
        QCOMPARE(f().runningLabel(), QByteArray("old\n"));
        QVERIFY(f().leftovers(QStringLiteral("launcher-backup-")).isEmpty());
        running.kill();
        QVERIFY(running.waitForFinished(60000));
        QVERIFY(f().swapDone());

        const QStringList backups = f().leftovers(QStringLiteral("launcher-backup-"));
        QVERIFY(QRegularExpression(QStringLiteral("^launcher-backup-0\\.1\\.190-") + kUuid + QStringLiteral("\\.app$"))
                    .match(backups.first()).hasMatch());
        // Three names, three different UUIDs.
        const auto uuidOf = [](const QString& name) {
            return QRegularExpression(kUuid).match(name).captured(0);
        };
        QCOMPARE(QSet<QString>({uuidOf(staging.first()), uuidOf(scripts.first()), uuidOf(backups.first())}).size(), 3);
        // Nothing is cleaned up: the script and the (now empty) staging folder stay.
        QVERIFY(QFileInfo::exists(script));
        QVERIFY(QFileInfo(f().launcherRoot() + QLatin1Char('/') + staging.first()).isDir());
    }

    void gamePlatformIsRefusedBeforeTheVersion() {
        const QUrl manifest = f().publishManifest(LauncherUpdateFixture::manifestJson(
            QStringLiteral("0.1.190"), QStringLiteral("macos-arm64"), QStringLiteral("https://127.0.0.1:1/x"),
            QStringLiteral("x"), QStringLiteral("ZenthoLauncher.app")));
        expectError(manifest, LauncherError::wrongLauncherPlatform());
        QCOMPARE(LauncherError::wrongLauncherPlatform().errorDescription(),
                 QStringLiteral("This launcher update is not for this macOS version."));
        for (const char* platform : {"macos-launcher-arm64 ", "MacOS-launcher-arm64", ""}) {
            expectError(f().publish("x", QStringLiteral("0.2.0"), QStringLiteral("ZenthoLauncher.app"),
                                    std::nullopt, QString::fromLatin1(platform)),
                        LauncherError::wrongLauncherPlatform());
        }
        QVERIFY(f().statuses().isEmpty());
    }

    void fileManifestIsAcceptedWithoutAStatus() {
        const QString source = f().makeNewBundle();
        const QByteArray archive = TestArchives::bytesOf(source, {QStringLiteral("ZenthoLauncher.app")});
        const QString local = f().path(QStringLiteral("manifest.json"));
        TestFiles::writeFile(local, LauncherUpdateFixture::manifestJson(
                                        QStringLiteral("0.2.0"), QStringLiteral("macos-launcher-arm64"),
                                        f().archiveUrl(archive), LauncherUpdateFixture::hexDigest(archive),
                                        QStringLiteral("ZenthoLauncher.app")));
        QCOMPARE(f().update(QUrl::fromLocalFile(local)), true);
        QVERIFY(f().swapDone());
    }

    void fileArchiveUrlFailsTheDownload() {
        const QString source = f().makeNewBundle();
        const QByteArray archive = TestArchives::bytesOf(source, {QStringLiteral("ZenthoLauncher.app")});
        const QString archivePath = f().path(QStringLiteral("launcher.tar.gz"));
        TestFiles::writeFile(archivePath, archive);
        const QString local = f().path(QStringLiteral("manifest.json"));
        TestFiles::writeFile(local, LauncherUpdateFixture::manifestJson(
                                        QStringLiteral("0.2.0"), QStringLiteral("macos-launcher-arm64"),
                                        QUrl::fromLocalFile(archivePath).toString(),
                                        LauncherUpdateFixture::hexDigest(archive),
                                        QStringLiteral("ZenthoLauncher.app")));
        expectError(QUrl::fromLocalFile(local), LauncherError::downloadFailed());
        QCOMPARE(f().statuses(), QStringList{LauncherUpdater::downloadingStatus()});
    }

    void manifestStatusMustBe200() {
        const QByteArray json = LauncherUpdateFixture::manifestJson(
            QStringLiteral("0.1.190"), QStringLiteral("macos-launcher-arm64"), QStringLiteral("https://127.0.0.1:1/x"),
            QStringLiteral("x"), QStringLiteral("ZenthoLauncher.app"));
        server_->writeFile(QStringLiteral("same.json"), json);
        QCOMPARE(f().update(server_->url(QStringLiteral("/status/200/same.json"))), false);
        for (const char* code : {"204", "206", "404", "407", "500"})
            expectError(server_->url(QStringLiteral("/status/%1/same.json").arg(QLatin1String(code))),
                        LauncherError::badLauncherManifest());
    }

    void archiveStatusMustBe200() {
        const QString source = f().makeNewBundle();
        const QByteArray archive = TestArchives::bytesOf(source, {QStringLiteral("ZenthoLauncher.app")});
        server_->writeFile(QStringLiteral("status-archive.tar.gz"), archive);
        for (const char* code : {"206", "404", "407"}) {
            const QString url = server_->url(QStringLiteral("/status/%1/status-archive.tar.gz").arg(QLatin1String(code))).toString();
            expectError(f().publishManifest(LauncherUpdateFixture::manifestJson(
                            QStringLiteral("0.2.0"), QStringLiteral("macos-launcher-arm64"), url,
                            LauncherUpdateFixture::hexDigest(archive), QStringLiteral("ZenthoLauncher.app"))),
                        LauncherError::downloadFailed());
        }
    }

    void undecodableManifestPassesThrough() {
        const QUrl manifest = f().publishManifest("{\"version\": \"0.2.0\", \"platform\": \"macos-launcher-arm64\"}");
        QVERIFY_THROWS_EXCEPTION(ManifestDecodingError, f().update(manifest));
        QVERIFY(f().statuses().isEmpty());
    }

    void upperCaseDigestMatches() {
        const QString source = f().makeNewBundle();
        const QByteArray archive = TestArchives::bytesOf(source, {QStringLiteral("ZenthoLauncher.app")});
        QCOMPARE(f().update(f().publish(archive, QStringLiteral("0.2.0"), QStringLiteral("ZenthoLauncher.app"),
                                        LauncherUpdateFixture::hexDigest(archive).toUpper())),
                 true);
        QVERIFY(f().swapDone());
    }

    void wrongDigestFails() {
        const QString source = f().makeNewBundle();
        const QByteArray archive = TestArchives::bytesOf(source, {QStringLiteral("ZenthoLauncher.app")});
        const QString digest = LauncherUpdateFixture::hexDigest(archive);
        for (const QString& sha : {QStringLiteral("sha256:") + digest, digest + QLatin1Char(' '),
                                   digest.left(63) + (digest.endsWith(QLatin1Char('0')) ? QLatin1Char('1') : QLatin1Char('0'))}) {
            expectError(f().publish(archive, QStringLiteral("0.2.0"), QStringLiteral("ZenthoLauncher.app"), sha),
                        LauncherError::hashMismatch());
        }
        QVERIFY(f().leftovers(QStringLiteral("launcher-staging-")).isEmpty());
        QCOMPARE(f().statuses().last(), LauncherUpdater::downloadingStatus());
    }

    void unsafeListingsAreRefused() {
        const QString source = f().makeNewBundle();
        TestFiles::writeFile(source + QStringLiteral("/x"), "x");
        const QList<QStringList> hostile{
            {QStringLiteral("--transform=s,^x$,ZenthoLauncher.app/../../x,")},
            {QStringLiteral("-P"), QStringLiteral("--transform=s,^x$,/Applications/x,")},
        };
        for (const QStringList& rename : hostile) {
            const QByteArray archive = TestArchives::bytesOf(source, {QStringLiteral("ZenthoLauncher.app"), QStringLiteral("x")}, rename);
            expectError(f().publish(archive), LauncherError::unsafeArchive());
            QCOMPARE(f().statuses().last(), LauncherUpdater::verifyingStatus());
        }
        // Nothing was unpacked where the names lead, and nothing of the refused updates stays.
        QVERIFY(!QFileInfo::exists(f().launcherRoot() + QStringLiteral("/x")));
        QVERIFY(!QFileInfo::exists(QStringLiteral("/Applications/x")));
        QCOMPARE(f().leftovers(QStringLiteral("launcher-staging-")), QStringList());
    }

    void dotsInsideANameAreSafe() {
        const QString source = f().makeNewBundle();
        TestFiles::writeFile(source + QStringLiteral("/a..b/c"), "c");
        const QByteArray archive = TestArchives::bytesOf(source, {QStringLiteral("ZenthoLauncher.app"), QStringLiteral("a..b")});
        QCOMPARE(f().update(f().publish(archive)), true);
        QVERIFY(f().swapDone());
    }

    void brokenArchiveFailsWithTarsText() {
        const QByteArray garbage = "this is not a gzip file";
        const std::optional<LauncherError> error = f().updateError(f().publish(garbage));
        QVERIFY(error.has_value());
        QCOMPARE(error->errorCase(), LauncherError::Case::archiveFailed);
        QVERIFY2(error->detail().contains(QStringLiteral("tar")), qPrintable(error->detail()));
        QVERIFY(f().nothingStarted());
    }

    void missingLauncherExecutableIsRefused() {
        // No executable at all.
        QString source = f().makeNewBundle();
        QVERIFY(QFile::remove(source + QStringLiteral("/ZenthoLauncher.app/Contents/MacOS/ZenthoLauncher")));
        expectError(f().publishBundle(source), LauncherError::missingLauncherExecutable());
        // One that cannot be run.
        source = f().makeNewBundle();
        QVERIFY(QFile::setPermissions(source + QStringLiteral("/ZenthoLauncher.app/Contents/MacOS/ZenthoLauncher"),
                                      QFile::ReadOwner | QFile::WriteOwner));
        expectError(f().publishBundle(source), LauncherError::missingLauncherExecutable());
        // The manifest names a bundle the archive does not hold.
        source = f().makeNewBundle();
        expectError(f().publish(TestArchives::bytesOf(source, {QStringLiteral("ZenthoLauncher.app")}),
                                QStringLiteral("0.2.0"), QStringLiteral("Other.app")),
                    LauncherError::missingLauncherExecutable());
        // Nothing of a refused update stays staged.
        QCOMPARE(f().leftovers(QStringLiteral("launcher-staging-")), QStringList());
    }

    void bundleSealedWithAnotherKeyIsRefused() {
        const QString key = f().path(QStringLiteral("other.key"));
        QProcess keygen;
        keygen.start(LauncherBundles::releaseTool(), {QStringLiteral("keygen"), key});
        QVERIFY(keygen.waitForFinished() && keygen.exitCode() == 0);
        expectError(f().publishBundle(f().makeNewBundle(QStringLiteral("ZenthoLauncher.app"), key)),
                    LauncherError::invalidLauncherSignature(
                        QStringLiteral("Contents/_CodeSignature/Signature: not signed by a trusted key\n")));
    }

    void bundleChangedAfterSealingIsRefused() {
        const QString source = f().makeNewBundle();
        TestFiles::writeFile(source + QStringLiteral("/ZenthoLauncher.app/Contents/Resources/label.txt"), "evil\n");
        expectError(f().publishBundle(source),
                    LauncherError::invalidLauncherSignature(
                        QStringLiteral("Contents/Resources/label.txt: content changed\n")));
        const QString unsealed = f().makeNewBundle(QStringLiteral("ZenthoLauncher.app"), QString());
        const std::optional<LauncherError> error = f().updateError(f().publishBundle(unsealed));
        QVERIFY(error && error->errorCase() == LauncherError::Case::invalidLauncherSignature);
        QVERIFY2(error->detail().contains(QStringLiteral("not signed")), qPrintable(error->detail()));
    }

    void verifierFailingSilentlyGivesTheFixedText() {
        f().replaceVerifier("exit 1\n");
        const std::optional<LauncherError> error = f().updateError(f().publishBundle(f().makeNewBundle()));
        QVERIFY(error.has_value());
        QCOMPARE(error->errorCase(), LauncherError::Case::invalidLauncherSignature);
        QCOMPARE(error->detail(), QString());
        QCOMPARE(error->errorDescription(), QStringLiteral("The launcher signature is invalid."));
        QVERIFY(f().nothingStarted());
    }

    void verifierGetsExactlyItsCommandLine() {
        const QString args = f().path(QStringLiteral("verifier-args"));
        f().replaceVerifier("printf '%s\\n' \"$@\" > '" + QFile::encodeName(args) + "'\nexit 0\n");
        QCOMPARE(f().update(f().publishBundle(f().makeNewBundle())), true);
        const QStringList staging = f().leftovers(QStringLiteral("launcher-staging-"));
        QCOMPARE(QString::fromUtf8(TestFiles::readFile(args)),
                 QStringLiteral("--verify\n--deep\n--strict\n%1/%2/ZenthoLauncher.app\n")
                     .arg(f().launcherRoot(), staging.first()));
        QVERIFY(f().swapDone());
    }

    void launcherOutsideAnAppBundleIsRefused() {
        // A writable folder, but not an ".app" bundle: the verifier beside the executable passes
        // the update, and the location check refuses it.
        const QString folder = f().path(QStringLiteral("plain"));
        f().runFrom(folder, folder);
        QCOMPARE(f().platform().bundlePath(), folder);
        expectError(f().publishBundle(f().makeNewBundle()), LauncherError::launcherLocationNotWritable());
        QCOMPARE(LauncherError::launcherLocationNotWritable().errorDescription(),
                 QStringLiteral("Move the launcher to Applications or another writable folder, then try again."));
    }

    void locationCheck() {
        const FileManager& files = FileManager::defaultManager();
        LauncherUpdater::checkTargetLocation(files, f().runningBundle());
        // A folder that even root may not write to.
        QVERIFY(!files.isWritableFile(QStringLiteral("/proc/1")));
        QVERIFY_THROWS_EXCEPTION(LauncherError,
                                 LauncherUpdater::checkTargetLocation(files, QStringLiteral("/proc/1/ZenthoLauncher.app")));
        QVERIFY_THROWS_EXCEPTION(LauncherError,
                                 LauncherUpdater::checkTargetLocation(files, f().path(QStringLiteral("Applications"))));
        QVERIFY_THROWS_EXCEPTION(LauncherError,
                                 LauncherUpdater::checkTargetLocation(files, f().path(QStringLiteral("Launcher.apps"))));
        QCOMPARE(LauncherUpdater::verifierPath(QStringLiteral("/A/B.app")), QStringLiteral("/A/B.app/Contents/MacOS/zentho-codesign"));
        QCOMPARE(LauncherUpdater::verifierPath(QStringLiteral("/A/bin")), QStringLiteral("/A/bin/zentho-codesign"));
    }

    // A bundle that is a link (here to the running, validly sealed bundle) would pass the seal
    // check on its target and then be moved into place as the link: it is refused first.
    void linkedBundleIsRefusedBeforeTheSealCheck() {
        const QString source = f().path(QStringLiteral("linked-source"));
        QVERIFY(QDir().mkpath(source));
        QVERIFY(QFile::link(f().runningBundle(), source + QStringLiteral("/ZenthoLauncher.app")));
        const std::optional<LauncherError> error = f().updateError(
            f().publish(TestArchives::bytesOf(source, {QStringLiteral("ZenthoLauncher.app")})));
        QVERIFY(error);
        QCOMPARE(error->errorCase(), LauncherError::Case::invalidLauncherSignature);
        QCOMPARE(error->errorDescription(),
                 QStringLiteral("ZenthoLauncher.app: not a folder inside the update"));
        QVERIFY(f().nothingStarted());
    }
    // The twin: the same bundle as a real folder passes and is handed over.
    void realBundleFolderIsHandedOver() {
        QVERIFY(f().update(f().publishBundle(f().makeNewBundle())));
        QVERIFY(f().swapDone());
    }

    // Without its verifier beside it the launcher checks the seal itself, with its own
    // executable in verifier mode, and that verdict decides.
    void missingVerifierFallsBackToTheLauncherItself() {
        const QString macos = f().runningBundle() + QStringLiteral("/Contents/MacOS");
        QVERIFY(QFile::remove(macos + QStringLiteral("/zentho-codesign")));
        const QString asked = f().path(QStringLiteral("asked"));
        TestFiles::writeScript(macos + QStringLiteral("/ZenthoLauncher"),
                               "echo \"$@\" > '" + QFile::encodeName(asked) +
                                   "'; echo 'seal refused by the launcher' >&2; exit 1\n");
        const std::optional<LauncherError> error =
            f().updateError(f().publishBundle(f().makeNewBundle()));
        QVERIFY(error);
        QCOMPARE(error->errorCase(), LauncherError::Case::invalidLauncherSignature);
        QCOMPARE(error->errorDescription(), QStringLiteral("seal refused by the launcher\n"));
        QVERIFY(TestFiles::readFile(asked).startsWith("--codesign --verify --deep --strict "));
        QVERIFY(f().nothingStarted());
    }
};

QTEST_GUILESS_MAIN(TestLauncherUpdater)
#include "TestLauncherUpdater.moc"
