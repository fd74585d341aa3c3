#include "LauncherModelProbe.h"
#include "RecordingPlatform.h"
#include "ScopedDataHome.h"
#include "TestArchives.h"
#include "TestFiles.h"
#include "TaskOutcome.h"
#include "TestServer.h"

#include "model/LauncherError.h"
#include "model/LauncherModel.h"
#include "platform/FileError.h"
#include "storage/InstalledState.h"
#include "update/HttpClient.h"

#include <QCoroTask>
#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

#include <sys/stat.h>

namespace {

const QString kDownloading = QStringLiteral("Downloading into ZENTHO storage...");
const QString kInstalling = QStringLiteral("Installing verified update...");
const QString kPrevious = QStringLiteral("0.1.0");

QStringList entriesOf(const QString& folder) {
    return QDir(folder).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden |
                                      QDir::System,
                                  QDir::Name);
}

unsigned modeOf(const QString& path) {
    struct stat info {};
    if (::stat(QFile::encodeName(path).constData(), &info) != 0)
        return 0;
    return info.st_mode & 07777;
}

// How an install ended, in a form a data table can name.
QString outcomeOf(const std::exception_ptr& error) {
    if (!error)
        return QStringLiteral("ok");
    try {
        std::rethrow_exception(error);
    } catch (const LauncherError& e) {
        switch (e.errorCase()) {
        case LauncherError::Case::downloadFailed: return QStringLiteral("downloadFailed");
        case LauncherError::Case::hashMismatch: return QStringLiteral("hashMismatch");
        case LauncherError::Case::unsafeArchive: return QStringLiteral("unsafeArchive");
        case LauncherError::Case::missingExecutable: return QStringLiteral("missingExecutable");
        case LauncherError::Case::archiveFailed: return QStringLiteral("archiveFailed");
        default: return QStringLiteral("LauncherError: ") + e.errorDescription();
        }
    } catch (const FileError&) {
        return QStringLiteral("FileError");
    } catch (const NetworkError&) {
        return QStringLiteral("NetworkError");
    } catch (const std::exception& e) {
        return QStringLiteral("other: ") + QString::fromUtf8(e.what());
    }
}

} // namespace

// Every install here runs against a real nginx over HTTPS with archives made by tar at test
// time. Each case gets a fresh sandbox: its own data home with a previous build recorded as
// current, its own temporary folder (where the download lands), an empty working folder and an
// empty "outside" folder that hostile archives aim at, so that anything the install writes where
// it should not shows up.
class TestGameInstaller : public QObject {
    Q_OBJECT

    std::unique_ptr<TestServer> server_;
    std::unique_ptr<QTemporaryDir> sandbox_;
    std::unique_ptr<ScopedDataHome> home_;
    std::unique_ptr<RecordingPlatform> platform_;
    std::unique_ptr<LauncherModel> model_;
    QStringList statuses_;
    QByteArray previousState_;
    QStringList previousVersions_;
    QString previousCwd_;
    QByteArray previousTmpdir_;
    int served_ = 0;

    QString sandbox(const QString& name) const { return sandbox_->filePath(name); }
    QString tmp() const { return sandbox(QStringLiteral("tmp")); }
    QString outside() const { return sandbox(QStringLiteral("outside")); }
    QString cwd() const { return sandbox(QStringLiteral("cwd")); }
    QString previousBuild() const { return home_->versionsRoot() + QLatin1Char('/') + kPrevious; }

    // Puts `archive` on the server under a fresh name and returns its https address.
    QUrl serve(const QString& archive, const QString& prefix = QString()) {
        const QString name = QStringLiteral("builds/%1.tar.gz").arg(++served_);
        server_->writeFile(name, TestFiles::readFile(archive));
        return server_->url(prefix + QLatin1Char('/') + name);
    }
    QString scratch(const QString& name) const { return sandbox(QStringLiteral("scratch/") + name); }

    // A build archive: "zentho" at the top and a data file.
    QString buildArchive(const QString& name) {
        const QString folder = scratch(name);
        TestFiles::makeBuild(folder);
        TestFiles::writeFile(folder + QStringLiteral("/data/pak0"), "pak0");
        const QString archive = scratch(name + QStringLiteral(".tar.gz"));
        TestArchives::create(archive, folder, {QStringLiteral("zentho"), QStringLiteral("data")});
        return archive;
    }
    // A build archive that also holds one member stored under `hostileName`.
    QString archiveWithName(const QString& hostileName) {
        const QString folder = scratch(QStringLiteral("named"));
        TestFiles::makeBuild(folder);
        TestFiles::writeFile(folder + QStringLiteral("/member"), "payload\n");
        const QString archive = scratch(QStringLiteral("named.tar.gz"));
        TestArchives::create(archive, folder, {QStringLiteral("zentho"), QStringLiteral("member")},
                             {QStringLiteral("-P"),
                              QStringLiteral("--transform=s|^member$|%1|").arg(hostileName)});
        return archive;
    }

    ReleaseManifest manifestFor(const QString& version, const QUrl& url, const QString& archive,
                                const QString& executable = QStringLiteral("zentho")) {
        return ReleaseManifest{version, QStringLiteral("macos-arm64"), url,
                               TestArchives::sha256sum(archive), executable};
    }

    static QCoro::Task<void> keepFolder(QCoro::Task<QUrl> task, QUrl* folder) {
        const QUrl result = co_await std::move(task);
        if (folder)
            *folder = result;
    }
    std::exception_ptr install(const ReleaseManifest& manifest, QUrl* folder = nullptr) {
        return waitForOutcome(keepFolder(LauncherModelProbe::install(*model_, manifest), folder));
    }

    // Everything a failed install must leave as it was.
    void verifyNothingChanged() {
        QCOMPARE(TestFiles::readFile(home_->statePath()), previousState_);
        QVERIFY(QFileInfo(previousBuild() + QStringLiteral("/zentho")).isExecutable());
        QCOMPARE(entriesOf(home_->launcherRoot()),
                 (QStringList{QStringLiteral("current-macos.json"), QStringLiteral("versions")}));
        QCOMPARE(entriesOf(home_->versionsRoot()), previousVersions_);
        QCOMPARE(entriesOf(home_->path()), QStringList{QStringLiteral("Zentho")});
        QCOMPARE(entriesOf(home_->path() + QStringLiteral("/Zentho")),
                 QStringList{QStringLiteral("launcher")});
        QCOMPARE(model_->installedVersion(), kPrevious);
        verifyNoStrayFiles();
    }
    // Nothing outside the launcher's storage, and no download left in the temporary folder.
    void verifyNoStrayFiles() {
        QCOMPARE(entriesOf(tmp()), QStringList());
        QCOMPARE(entriesOf(cwd()), QStringList());
        QCOMPARE(entriesOf(outside()), QStringList());
    }
    void verifyInstalled(const QString& version, const QUrl& folder,
                         const QString& executable = QStringLiteral("zentho")) {
        const QString expected = home_->versionsRoot() + QLatin1Char('/') + version;
        QCOMPARE(folder, QUrl::fromLocalFile(expected));
        QCOMPARE(TestFiles::readFile(home_->statePath()), (InstalledState{version, expected}).encode());
        QCOMPARE(modeOf(expected + QLatin1Char('/') + executable), 0755u);
        QCOMPARE(model_->installedVersion(), version);
        const auto builds = model_->installedBuilds();
        QVERIFY(std::any_of(builds.cbegin(), builds.cend(),
                            [&](const InstalledBuild& b) { return b.path == expected; }));
        QVERIFY(QFileInfo(previousBuild() + QStringLiteral("/zentho")).isExecutable());
        for (const QString& entry : entriesOf(home_->launcherRoot()))
            QVERIFY2(!entry.startsWith(QStringLiteral("staging-")), qPrintable(entry));
        verifyNoStrayFiles();
    }

private slots:
    void initTestCase() {
        server_ = std::make_unique<TestServer>();
        TestServer::trustInThisProcess();
        previousCwd_ = QDir::currentPath();
        previousTmpdir_ = qgetenv("TMPDIR");
    }

    void init() {
        sandbox_ = std::make_unique<QTemporaryDir>();
        QVERIFY(sandbox_->isValid());
        for (const QString& folder : {tmp(), outside(), cwd(), sandbox(QStringLiteral("scratch"))})
            TestFiles::makeFolder(folder);
        home_ = std::make_unique<ScopedDataHome>();
        TestFiles::makeBuild(previousBuild());
        TestFiles::writeFile(home_->statePath(), InstalledState{kPrevious, previousBuild()}.encode());
        previousState_ = TestFiles::readFile(home_->statePath());
        previousVersions_ = entriesOf(home_->versionsRoot());
        QVERIFY(QDir::setCurrent(cwd()));
        qputenv("TMPDIR", QFile::encodeName(tmp()));

        platform_ = std::make_unique<RecordingPlatform>();
        model_ = std::make_unique<LauncherModel>(*platform_);
        QCOMPARE(model_->installedVersion(), kPrevious);
        statuses_.clear();
        connect(model_.get(), &LauncherModel::statusChanged, this,
                [this] { statuses_.append(model_->status()); });
    }

    void cleanup() {
        model_.reset();
        platform_.reset();
        QDir::setCurrent(previousCwd_);
        qputenv("TMPDIR", previousTmpdir_);
        home_.reset();
        sandbox_.reset();
    }

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
        QCOMPARE(modeOf(home_->versionsRoot() + QStringLiteral("/0.2.0/data/pak0")), 0644u);
        QCOMPARE(model_->selectedInstalledPath(), previousBuild()); // the selection is kept
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

    void digestSpelling_data() {
        QTest::addColumn<QString>("spelling");
        QTest::addColumn<QString>("outcome");
        QTest::newRow("lower case") << "%1" << "ok";
        QTest::newRow("upper case") << "UPPER" << "ok";
        QTest::newRow("trailing blank") << "%1 " << "hashMismatch";
        QTest::newRow("trailing line feed") << "%1\n" << "hashMismatch";
        QTest::newRow("leading blank") << " %1" << "hashMismatch";
        QTest::newRow("sha256: prefix") << "sha256:%1" << "hashMismatch";
        QTest::newRow("first 63 digits") << "PREFIX63" << "hashMismatch";
        QTest::newRow("another archive's digest") << "OTHER" << "hashMismatch";
        QTest::newRow("empty") << "" << "hashMismatch";
    }
    void digestSpelling() {
        QFETCH(QString, spelling);
        QFETCH(QString, outcome);
        const QString archive = buildArchive(QStringLiteral("digest"));
        const QString digest = TestArchives::sha256sum(archive);
        QString written = spelling.contains(QStringLiteral("%1")) ? spelling.arg(digest) : spelling;
        if (spelling == QStringLiteral("UPPER")) {
            written = digest.toUpper();
        } else if (spelling == QStringLiteral("PREFIX63")) {
            written = digest.left(63);
        } else if (spelling == QStringLiteral("OTHER")) {
            // Archives of the same tree made in the same second are byte-identical, so the other
            // digest comes from other content.
            TestFiles::writeFile(scratch(QStringLiteral("other.bin")), "another build");
            written = TestArchives::sha256sum(scratch(QStringLiteral("other.bin")));
            QVERIFY(written != digest);
        }
        ReleaseManifest manifest = manifestFor("0.5.0", serve(archive), archive);
        manifest.sha256 = written;
        QUrl folder;
        QCOMPARE(outcomeOf(install(manifest, &folder)), outcome);
        if (outcome == QStringLiteral("ok")) {
            QCOMPARE(statuses_, (QStringList{kDownloading, kInstalling}));
            verifyInstalled(QStringLiteral("0.5.0"), folder);
        } else {
            QCOMPARE(statuses_, QStringList{kDownloading}); // never "Installing verified update..."
            verifyNothingChanged();
        }
    }

    void httpStatus_data() {
        QTest::addColumn<QString>("route");
        QTest::addColumn<QString>("outcome");
        QTest::newRow("200") << "/status/200" << "ok";
        QTest::newRow("plain file") << "" << "ok";
        QTest::newRow("https redirect") << "/redirect/https" << "ok";
        QTest::newRow("204") << "/status/204" << "downloadFailed";
        QTest::newRow("206") << "/status/206" << "downloadFailed";
        QTest::newRow("304") << "/status/304" << "downloadFailed";
        QTest::newRow("404") << "/status/404" << "downloadFailed";
        QTest::newRow("500") << "/status/500" << "downloadFailed";
        QTest::newRow("redirect to plain http") << "/redirect/http" << "NetworkError";
    }
    void httpStatus() {
        QFETCH(QString, route);
        QFETCH(QString, outcome);
        const QString archive = buildArchive(QStringLiteral("status"));
        QUrl folder;
        QCOMPARE(outcomeOf(install(manifestFor("0.6.0", serve(archive, route), archive), &folder)),
                 outcome);
        if (outcome == QStringLiteral("ok")) {
            verifyInstalled(QStringLiteral("0.6.0"), folder);
        } else {
            QCOMPARE(statuses_, QStringList{kDownloading});
            verifyNothingChanged();
        }
    }

    void transportFailurePassesThrough() {
        const QString archive = buildArchive(QStringLiteral("refused"));
        const QUrl url(QStringLiteral("https://127.0.0.1:%1/build.tar.gz")
                           .arg(TestServer::unusedLocalPort()));
        QCOMPARE(outcomeOf(install(manifestFor("0.6.1", url, archive))), QStringLiteral("NetworkError"));
        QCOMPARE(statuses_, QStringList{kDownloading});
        verifyNothingChanged();
    }

    // A local file is never installed, even with the right digest; its twin over https is.
    void fileUrlIsRefused() {
        const QString archive = buildArchive(QStringLiteral("local"));
        QCOMPARE(outcomeOf(install(manifestFor("0.7.0", QUrl::fromLocalFile(archive), archive))),
                 QStringLiteral("downloadFailed"));
        QCOMPARE(statuses_, QStringList{kDownloading});
        QVERIFY(QFileInfo::exists(archive));
        verifyNothingChanged();
    }
    void sameArchiveOverHttpsIsInstalled() {
        const QString archive = buildArchive(QStringLiteral("local"));
        QUrl folder;
        QCOMPARE(outcomeOf(install(manifestFor("0.7.0", serve(archive), archive), &folder)),
                 QStringLiteral("ok"));
        verifyInstalled(QStringLiteral("0.7.0"), folder);
    }

    void hostileArchive_data() {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<QString>("outcome");
        QTest::newRow("absolute name") << "absolute" << "unsafeArchive";
        QTest::newRow("climbs out through a folder") << "game/../../escaped" << "unsafeArchive";
        QTest::newRow("climbs out of the versions folder") << "../../../outside/escaped"
                                                           << "unsafeArchive";
        QTest::newRow("lone ..") << ".." << "unsafeArchive";
        QTest::newRow("dots inside a name") << "a..b/c" << "ok";
        QTest::newRow("dots starting a name") << "..x" << "ok";
        QTest::newRow("CR after ..") << "..\r/x" << "ok";
        QTest::newRow("dot components") << "./dir/./file" << "ok";
        QTest::newRow("empty archive") << "empty" << "missingExecutable";
        QTest::newRow("no executable") << "no executable" << "missingExecutable";
        QTest::newRow("corrupt gzip") << "corrupt" << "archiveFailed";
        QTest::newRow("truncated") << "truncated" << "archiveFailed";
        QTest::newRow("plain tar, not gzip") << "plain tar" << "archiveFailed";
    }
    void hostileArchive() {
        QFETCH(QString, kind);
        QFETCH(QString, outcome);
        QString archive = scratch(QStringLiteral("hostile.tar.gz"));
        if (kind == QStringLiteral("absolute")) {
            archive = archiveWithName(outside() + QStringLiteral("/escaped"));
        } else if (kind == QStringLiteral("empty")) {
            QProcess tar;
            tar.start(QStringLiteral("/usr/bin/tar"),
                      {QStringLiteral("-czf"), archive, QStringLiteral("--files-from=/dev/null")});
            QVERIFY(tar.waitForFinished() && tar.exitCode() == 0);
        } else if (kind == QStringLiteral("no executable")) {
            TestFiles::writeFile(scratch(QStringLiteral("noexec/data/pak0")), "pak0");
            TestArchives::create(archive, scratch(QStringLiteral("noexec")), {QStringLiteral("data")});
        } else if (kind == QStringLiteral("corrupt")) {
            TestFiles::writeFile(archive, QByteArray("\x1f\x8b\x08\x00 not deflate at all", 24));
        } else if (kind == QStringLiteral("truncated")) {
            // Incompressible content, so that half of the archive is really missing its end.
            QByteArray noise(512 * 1024, '\0');
            QRandomGenerator::global()->fillRange(reinterpret_cast<quint32*>(noise.data()),
                                                  noise.size() / 4);
            TestFiles::makeBuild(scratch(QStringLiteral("cut")));
            TestFiles::writeFile(scratch(QStringLiteral("cut/noise")), noise);
            const QString whole = scratch(QStringLiteral("whole.tar.gz"));
            TestArchives::create(whole, scratch(QStringLiteral("cut")),
                                 {QStringLiteral("zentho"), QStringLiteral("noise")});
            TestFiles::writeFile(archive, TestFiles::readFile(whole).left(256 * 1024));
        } else if (kind == QStringLiteral("plain tar")) {
            TestFiles::makeBuild(scratch(QStringLiteral("plain")));
            QProcess tar;
            tar.start(QStringLiteral("/usr/bin/tar"),
                      {QStringLiteral("-cf"), archive, QStringLiteral("-C"),
                       scratch(QStringLiteral("plain")), QStringLiteral("zentho")});
            QVERIFY(tar.waitForFinished() && tar.exitCode() == 0);
        } else {
            archive = archiveWithName(kind);
        }
        QUrl folder;
        QCOMPARE(outcomeOf(install(manifestFor("0.8.0", serve(archive), archive), &folder)), outcome);
        QCOMPARE(statuses_, (QStringList{kDownloading, kInstalling}));
        if (outcome == QStringLiteral("ok")) {
            verifyInstalled(QStringLiteral("0.8.0"), folder);
            QCOMPARE(TestFiles::readFile(home_->versionsRoot() + QStringLiteral("/0.8.0/") + kind),
                     QByteArray("payload\n"));
        } else {
            verifyNothingChanged();
        }
    }

    // An executable that names a folder passes the check and that folder alone gets 0755; its
    // twin names something the archive lacks.
    void executableMayNameAFolder() {
        const QString folder = scratch(QStringLiteral("app"));
        TestFiles::writeFile(folder + QStringLiteral("/Game.app/run"), "x", 0600);
        QVERIFY(QFile::setPermissions(folder + QStringLiteral("/Game.app"),
                                      QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
        const QString archive = scratch(QStringLiteral("app.tar.gz"));
        TestArchives::create(archive, folder, {QStringLiteral("Game.app")});
        QUrl result;
        QCOMPARE(outcomeOf(install(manifestFor("0.9.0", serve(archive), archive, "Game.app"), &result)),
                 QStringLiteral("ok"));
        const QString installed = home_->versionsRoot() + QStringLiteral("/0.9.0");
        QCOMPARE(result, QUrl::fromLocalFile(installed));
        QCOMPARE(modeOf(installed + QStringLiteral("/Game.app")), 0755u);
        QCOMPARE(modeOf(installed + QStringLiteral("/Game.app/run")), 0600u);
        QCOMPARE(model_->installedVersion(), QStringLiteral("0.9.0"));
        verifyNoStrayFiles();
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
