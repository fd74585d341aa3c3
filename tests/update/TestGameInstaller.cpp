#include "InstallSandbox.h"
#include "TestRequirements.h"

// The two ways an install goes (a full install and a record of a build already on disk) and
// what each leaves in the launcher's storage.
class TestGameInstaller : public InstallSandbox {
    Q_OBJECT

private slots:
    void initTestCase() {
        ZENTHO_REQUIRE(nginx);
        startServer();
    }
    void init() { setUpSandbox(); }
    void cleanup() { tearDownSandbox(); }

    void freshInstallGoesThroughEveryStep() {
        const QString archive = buildArchive(QStringLiteral("fresh"));
        QUrl folder;
        QCOMPARE(outcomeOf(install(manifestFor("0.2.0", serve(archive), archive), &folder)),
                 QStringLiteral("ok"));
        QCOMPARE(statuses_, (QStringList{kDownloading, kInstalling}));
        verifyInstalled(QStringLiteral("0.2.0"), folder);
        QCOMPARE(TestFiles::readFile(home_->versionsRoot() + QStringLiteral("/0.2.0/data/pak0")),
                 QByteArray("pak0"));
        // Only the one item is made executable; the rest keeps what the archive said.
        QCOMPARE(TestFiles::modeOf(home_->versionsRoot() + QStringLiteral("/0.2.0/data/pak0")), 0644);
        QCOMPARE(model_->selectedInstalledPath(), previousBuild()); // the selection is kept
        // The download's progress reached the taskbar, ending whole, and was taken off after.
        const QList<double> shown = platform_->taskbarProgress;
        QVERIFY2(shown.size() >= 2, qPrintable(QString::number(shown.size())));
        QCOMPARE(shown.at(shown.size() - 2), 1.0);
        QVERIFY(shown.last() < 0);
    }

    // The record-only path, and its twin: the same manifest without the executable on disk.
    void buildAlreadyOnDiskIsOnlyRecorded() {
        const QString folder = home_->versionsRoot() + QStringLiteral("/0.3.0");
        TestFiles::makeBuild(folder);
        // An address that cannot be downloaded: reaching the network would fail the install.
        const ReleaseManifest manifest{"0.3.0", "macos-arm64",
                                       server_->url(QStringLiteral("/status/404/none")),
                                       QString(64, u'0'), "zentho"};
        QUrl result;
        QCOMPARE(outcomeOf(install(manifest, &result)), QStringLiteral("ok"));
        QCOMPARE(statuses_, QStringList());
        QCOMPARE(platform_->taskbarProgress, QList<double>()); // nothing downloads, nothing shows
        QCOMPARE(model_->status(), QStringLiteral("Ready"));
        QCOMPARE(result, QUrl::fromLocalFile(folder));
        QCOMPARE(TestFiles::readFile(home_->statePath()), (InstalledState{"0.3.0", folder}).encode());
        QCOMPARE(model_->installedVersion(), QStringLiteral("0.3.0"));
        QCOMPARE(model_->installedBuilds().first().path, folder); // rescanned, newest first
        QVERIFY(!QFileInfo::exists(home_->statePath() + QStringLiteral(".tmp")));
        verifyNoStrayFiles();
    }
    void buildFolderWithoutItsExecutableIsDownloaded() {
        TestFiles::makeBuild(home_->versionsRoot() + QStringLiteral("/0.3.0"));
        const ReleaseManifest manifest{"0.3.0", "macos-arm64",
                                       server_->url(QStringLiteral("/status/404/none")),
                                       QString(64, u'0'), "bin/zentho"};
        previousVersions_ = entriesOf(home_->versionsRoot());
        QCOMPARE(outcomeOf(install(manifest)), QStringLiteral("downloadFailed"));
        QCOMPARE(statuses_, QStringList{kDownloading});
        verifyNothingChanged();
    }

    // A folder in the way of the move: downloaded, verified and unpacked every time, then refused,
    // until the folder is gone.
    void existingBuildFolderMakesEveryAttemptFail() {
        const QString archive = buildArchive(QStringLiteral("blocked"));
        const QString blocker = home_->versionsRoot() + QStringLiteral("/0.4.0");
        TestFiles::writeFile(blocker + QStringLiteral("/notes.txt"), "left behind");
        previousVersions_ = entriesOf(home_->versionsRoot());
        const ReleaseManifest manifest = manifestFor("0.4.0", serve(archive), archive);
        for (int attempt = 0; attempt < 2; ++attempt) {
            statuses_.clear();
            QCOMPARE(outcomeOf(install(manifest)), QStringLiteral("FileError"));
            QCOMPARE(statuses_, (QStringList{kDownloading, kInstalling}));
            QCOMPARE(entriesOf(blocker), QStringList{QStringLiteral("notes.txt")});
            verifyNothingChanged();
        }
        QVERIFY(QDir(blocker).removeRecursively());
        QUrl folder;
        QCOMPARE(outcomeOf(install(manifest, &folder)), QStringLiteral("ok"));
        verifyInstalled(QStringLiteral("0.4.0"), folder);
    }

    // Only a plain file can be the game: a folder recorded as the current build would block every
    // later start, so it is refused like a missing executable and nothing is changed.
    void executableThatNamesAFolderIsRefused() {
        const QString folder = scratch(QStringLiteral("app"));
        TestFiles::writeFile(folder + QStringLiteral("/Game.app/run"), "x", 0600);
        QVERIFY(QFile::setPermissions(folder + QStringLiteral("/Game.app"),
                                      QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
        const QString archive = scratch(QStringLiteral("app.tar.gz"));
        TestArchives::create(archive, folder, {QStringLiteral("Game.app")});
        QCOMPARE(outcomeOf(install(manifestFor("0.9.0", serve(archive), archive, "Game.app"))),
                 QStringLiteral("missingExecutable"));
        QCOMPARE(statuses_, (QStringList{kDownloading, kInstalling}));
        verifyNothingChanged();
    }
    void executableMissingFromTheArchive() {
        const QString archive = buildArchive(QStringLiteral("lacking"));
        QCOMPARE(outcomeOf(install(manifestFor("0.9.0", serve(archive), archive, "Game.app"))),
                 QStringLiteral("missingExecutable"));
        QCOMPARE(statuses_, (QStringList{kDownloading, kInstalling}));
        verifyNothingChanged();
    }

    // The state write is the last step: when it fails the build stays in place, and installing
    // the same manifest again only completes the record, without another download.
    void failedStateWriteIsCompletedByTheNextInstall() {
        const QString archive = buildArchive(QStringLiteral("record"));
        const QString temporaryState = home_->statePath() + QStringLiteral(".tmp");
        TestFiles::writeFile(temporaryState + QStringLiteral("/in-the-way"), "x");
        ReleaseManifest manifest = manifestFor("1.0.0", serve(archive), archive);
        QCOMPARE(outcomeOf(install(manifest)), QStringLiteral("FileError"));
        QCOMPARE(TestFiles::readFile(home_->statePath()), previousState_);
        QCOMPARE(model_->installedVersion(), kPrevious);
        const QString installed = home_->versionsRoot() + QStringLiteral("/1.0.0");
        QVERIFY(QFileInfo(installed + QStringLiteral("/zentho")).isExecutable());

        QVERIFY(QDir(temporaryState).removeRecursively());
        manifest.url = server_->url(QStringLiteral("/status/404/gone"));
        statuses_.clear();
        QUrl folder;
        QCOMPARE(outcomeOf(install(manifest, &folder)), QStringLiteral("ok"));
        QCOMPARE(statuses_, QStringList());
        verifyInstalled(QStringLiteral("1.0.0"), folder);
    }

    // The state file is replaced when it exists and created when it does not.
    void stateFileIsCreatedWhenMissing() {
        QVERIFY(QFile::remove(home_->statePath()));
        const QString archive = buildArchive(QStringLiteral("first"));
        QUrl folder;
        QCOMPARE(outcomeOf(install(manifestFor("0.2.1", serve(archive), archive), &folder)),
                 QStringLiteral("ok"));
        verifyInstalled(QStringLiteral("0.2.1"), folder);
        QVERIFY(!QFileInfo::exists(home_->statePath() + QStringLiteral(".tmp")));
    }
    void versionsFolderIsCreatedWhenMissing() {
        QVERIFY(QDir(home_->launcherRoot()).removeRecursively());
        const QString archive = buildArchive(QStringLiteral("bare"));
        QUrl folder;
        QCOMPARE(outcomeOf(install(manifestFor("0.2.2", serve(archive), archive), &folder)),
                 QStringLiteral("ok"));
        QCOMPARE(folder, QUrl::fromLocalFile(home_->versionsRoot() + QStringLiteral("/0.2.2")));
        QCOMPARE(entriesOf(home_->launcherRoot()),
                 (QStringList{QStringLiteral("current-macos.json"), QStringLiteral("versions")}));
        QCOMPARE(entriesOf(home_->versionsRoot()), QStringList{QStringLiteral("0.2.2")});
        verifyNoStrayFiles();
    }
    void versionsFolderThatCannotBeMadeFailsFirst() {
        // A file where the versions folder belongs: nothing is downloaded.
        QVERIFY(QDir(home_->versionsRoot()).removeRecursively());
        TestFiles::writeFile(home_->versionsRoot(), "not a folder");
        const QString archive = buildArchive(QStringLiteral("nofolder"));
        QCOMPARE(outcomeOf(install(manifestFor("0.2.3", serve(archive), archive))),
                 QStringLiteral("FileError"));
        QCOMPARE(statuses_, QStringList());
        QCOMPARE(TestFiles::readFile(home_->statePath()), previousState_);
        QCOMPARE(TestFiles::readFile(home_->versionsRoot()), QByteArray("not a folder"));
        verifyNoStrayFiles();
    }
};

QTEST_MAIN(TestGameInstaller)
#include "TestGameInstaller.moc"
