// The launcher players get updating itself on fresh Debian 12 and 13 systems: unpacked into
// ~/Games as the README says and started with an invite, it finds a newer launcher, the build's
// 0.2.0 bundle, whose frameworks are not its own, sealed with the key it trusts. It downloads it
// over HTTPS trusting the system's CA store, checks the seal, hands over to the finish script and
// quits; the bundle in ~/Games is then the new one, which starts and hands the invite to the
// game. A new bundle with one framework byte changed after its seal is refused: the old bundle
// stays as it was, still starts, and starts the game itself.

#include "FreshPlayer.h"
#include "FreshSystem.h"
#include "LauncherBundles.h"
#include "LauncherStorage.h"
#include "PublishedRelease.h"
#include "ReleaseTool.h"
#include "TestFiles.h"
#include "TestRequirements.h"
#include "TestServer.h"
#include "TreeSnapshot.h"

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <functional>
#include <memory>
#include <optional>

namespace {

using FreshPlayer::addSuiteRows;
using FreshPlayer::describe;
using FreshPlayer::gameBuild;
using FreshPlayer::gameStarted;
using User = FreshSystem::User;

const QString kInvite = QStringLiteral("zentho://join/fresh-self-update");
const QString kNewVersion = QStringLiteral("0.2.0");
const QString kArchive = QStringLiteral("zentho-%1-macos-launcher-arm64.tar.gz").arg(kNewVersion);
const QString kManifest = QStringLiteral("macos-launcher-arm64-manifest.json");
// A library both bundles carry; the refused release has one byte of it changed.
const QString kTamperedLibrary = QStringLiteral("Contents/Frameworks/libQt6Core.so.6");

} // namespace

class TestFreshDebianSelfUpdate : public QObject {
    Q_OBJECT

    std::unique_ptr<TestServer> server_;
    std::optional<PublishedRelease> release_;
    QTemporaryDir scratch_;
    // What the new bundle is made of, as it was sealed and published.
    QStringList newBundle_;

    QString sealedBundle(const QString& folder) const {
        return scratch_.filePath(folder + QStringLiteral("/ZenthoLauncher.app"));
    }

    // Seals a copy of the build's 0.2.0 bundle, at sealedBundle(`folder`), with the key the build
    // sealed the player's launcher with, and packs it into the server's `folder` as a publisher
    // would; `tamper`, when given, then changes the copy and the release is put together again by
    // hand, past pack's checks.
    void publishNewLauncher(const QString& folder,
                            const std::function<void(const QString&)>& tamper = {}) {
        const QString bundle = sealedBundle(folder);
        TestFiles::makeFolder(QFileInfo(bundle).path());
        ReleaseTool::sealedCopy(ReleaseTool::launcherBundle020(), bundle,
                                LauncherBundles::developmentKey());
        const QString out = server_->documentRoot() + QLatin1Char('/') + folder;
        const ReleaseTool::Run packed = ReleaseTool::packLauncherForPlayers(
            bundle, kNewVersion, server_->url(QLatin1Char('/') + folder).toString(), out);
        QVERIFY2(packed.ok(), packed.errors.constData());
        if (tamper) {
            tamper(bundle);
            ReleaseTool::repackByHand(out + QLatin1Char('/') + kManifest,
                                      out + QLatin1Char('/') + kArchive, bundle);
        }
    }

    QString manifestUrl(const QString& folder) const {
        return server_->url(QStringLiteral("/%1/%2").arg(folder, kManifest)).toString();
    }

    int served(const QString& folder, const QString& file) const {
        server_->awaitLogged();
        return int(server_->servedFor(QStringLiteral("/%1/%2").arg(folder, file)).size());
    }

    // The player's launcher storage, as the host reaches it.
    static QString storage(const FreshSystem& fresh) {
        return LauncherStorage(fresh.hostPath(FreshSystem::home(User::player) +
                                              QStringLiteral("/.local/share")))
            .root();
    }
    static QStringList inStorage(const FreshSystem& fresh, const QString& prefix) {
        return QDir(storage(fresh))
            .entryList({prefix + QLatin1Char('*')}, QDir::AllEntries | QDir::Hidden);
    }

    // The player starts the unpacked launcher with the invite, against `launcherManifest`; the
    // launcher quits at once, having handed over or started the game.
    static FreshSystem::Result startWithInvite(const FreshSystem& fresh,
                                               const PublishedRelease& release,
                                               const QString& launcherManifest) {
        return fresh.run({FreshPlayer::executable(), kInvite}, User::player,
                         FreshPlayer::offscreenReleaseSettings(release, launcherManifest));
    }

private slots:
    void initTestCase() {
        ZENTHO_REQUIRE(root);
        ZENTHO_REQUIRE(debootstrap);
        ZENTHO_REQUIRE(nginx);
        FreshPlayer::ensureBases();
        QVERIFY2(QFileInfo::exists(ReleaseTool::launcherBundle020() +
                                   QStringLiteral("/Contents/MacOS/ZenthoLauncher")),
                 "the 0.2.0 launcher bundle is not built");
        server_ = std::make_unique<TestServer>();
        release_.emplace(*server_);
        QVERIFY(QFileInfo::exists(release_->launcherArchive()));
        QVERIFY(release_->launcherVersion() != kNewVersion);

        publishNewLauncher(QStringLiteral("new"));
        if (QTest::currentTestFailed())
            return;
        const QString sealed = sealedBundle(QStringLiteral("new"));
        newBundle_ = TreeSnapshot::of(sealed);
        // Frameworks that are not the running launcher's make the swap visible: a launcher that
        // kept its own libraries next to the new Info.json would not pass for the new one.
        QVERIFY(TreeSnapshot::of(sealed + QStringLiteral("/Contents/Frameworks")) !=
                TreeSnapshot::of(LauncherBundles::builtBundle() +
                                 QStringLiteral("/Contents/Frameworks")));

        publishNewLauncher(QStringLiteral("broken"), [](const QString& bundle) {
            ReleaseTool::flipOneByte(bundle + QLatin1Char('/') + kTamperedLibrary);
        });
        if (QTest::currentTestFailed())
            return;
        // The check a publisher would run names what is wrong with it.
        const QString broken = server_->documentRoot() + QStringLiteral("/broken/");
        const ReleaseTool::Run checked = ReleaseTool::verify(broken + kManifest, broken + kArchive);
        QCOMPARE(checked.exitCode, 1);
        QVERIFY2(checked.errors.contains(kTamperedLibrary.toUtf8()), checked.errors.constData());
    }

    void theLauncherReplacesItsBundleWithTheNewOne_data() { addSuiteRows(); }
    void theLauncherReplacesItsBundleWithTheNewOne() {
        QFETCH(QString, suite);
        const auto fresh = FreshPlayer::withUnpackedLauncher(suite, *release_);
        fresh->trustCa(TestServer::caPath());
        const QString installed = fresh->hostPath(FreshPlayer::bundle());
        const QStringList oldBundle = TreeSnapshot::of(installed);
        const int archivesBefore = served(QStringLiteral("new"), kArchive);
        const int manifestsBefore = served(QStringLiteral("new"), kManifest);

        const FreshSystem::Result started =
            startWithInvite(*fresh, *release_, manifestUrl(QStringLiteral("new")));
        QVERIFY2(started.succeeded(), describe(started).constData());

        // The relaunched launcher follows the invite that led to the update: finding itself
        // current, it installs the game and hands it the link.
        const std::optional<StandinGames::Record> game = gameStarted(*fresh, 60000);
        QVERIFY2(game, describe(started).constData());
        QCOMPARE(game->cwd, gameBuild());
        QCOMPARE(game->arguments, QStringList{kInvite});
        QCOMPARE(served(QStringLiteral("new"), kArchive), archivesBefore + 1);
        QCOMPARE(served(QStringLiteral("new"), kManifest), manifestsBefore + 2);

        // ~/Games holds the new bundle as it was sealed, frameworks and all, and it starts there.
        QCOMPARE(TreeSnapshot::of(installed), newBundle_);
        const FreshSystem::Result version = fresh->run({FreshPlayer::executable(), "--version"});
        QCOMPARE(version.output, kNewVersion.toUtf8() + '\n');
        QCOMPARE(version.exitCode, 0);

        // The old bundle is kept whole in the storage, and nothing of the download is left: the
        // staging folder the bundle was moved out of stays behind, empty, as after every swap.
        const QStringList backups = inStorage(*fresh, QStringLiteral("launcher-backup-"));
        QCOMPARE(backups.size(), 1);
        const QRegularExpression backupName(
            QStringLiteral("^launcher-backup-%1-[0-9A-F-]{36}\\.app$")
                .arg(QRegularExpression::escape(release_->launcherVersion())));
        QVERIFY2(backupName.match(backups.first()).hasMatch(), qPrintable(backups.first()));
        QCOMPARE(TreeSnapshot::of(storage(*fresh) + QLatin1Char('/') + backups.first()), oldBundle);
        for (const QString& staging : inStorage(*fresh, QStringLiteral("launcher-staging-")))
            QCOMPARE(TreeSnapshot::of(storage(*fresh) + QLatin1Char('/') + staging), QStringList());
    }

    // The twin: the same start against a new bundle whose seal does not verify.
    void aNewBundleChangedAfterItsSealIsRefused_data() { addSuiteRows(); }
    void aNewBundleChangedAfterItsSealIsRefused() {
        QFETCH(QString, suite);
        const auto fresh = FreshPlayer::withUnpackedLauncher(suite, *release_);
        fresh->trustCa(TestServer::caPath());
        const QString installed = fresh->hostPath(FreshPlayer::bundle());
        const QStringList oldBundle = TreeSnapshot::of(installed);
        const int archivesBefore = served(QStringLiteral("broken"), kArchive);

        const FreshSystem::Result started =
            startWithInvite(*fresh, *release_, manifestUrl(QStringLiteral("broken")));
        QVERIFY2(started.succeeded(), describe(started).constData());

        // Downloaded, refused, and the old launcher starts the game itself.
        const std::optional<StandinGames::Record> game = gameStarted(*fresh, 60000);
        QVERIFY2(game, describe(started).constData());
        QCOMPARE(game->arguments, QStringList{kInvite});
        QCOMPARE(served(QStringLiteral("broken"), kArchive), archivesBefore + 1);

        QCOMPARE(TreeSnapshot::of(installed), oldBundle);
        const FreshSystem::Result version = fresh->run({FreshPlayer::executable(), "--version"});
        QCOMPARE(version.output, release_->launcherVersion().toUtf8() + '\n');
        QCOMPARE(version.exitCode, 0);
        QCOMPARE(inStorage(*fresh, QStringLiteral("launcher-staging-")), QStringList());
        QCOMPARE(inStorage(*fresh, QStringLiteral("launcher-backup-")), QStringList());
        QCOMPARE(inStorage(*fresh, QStringLiteral("finish-launcher-update-")), QStringList());
    }
};

QTEST_GUILESS_MAIN(TestFreshDebianSelfUpdate)
#include "TestFreshDebianSelfUpdate.moc"
