// The bundle players get, on fresh Debian 12 and 13 systems that hold only what every desktop
// has: unpacked from the packed release into ~/Games by an ordinary user as the README says, it
// starts, installs the game over HTTPS trusting the system's own CA store, starts it and joins
// the user's desktop. A bundle that lost a library says which instead of the dynamic loader's
// message; without a trusted CA nothing is installed.

#include "FreshPlayer.h"
#include "FreshSystem.h"
#include "PublishedRelease.h"
#include "RealLauncher.h"
#include "TestFiles.h"
#include "TestRequirements.h"
#include "TestServer.h"

#include <QFileInfo>
#include <QTest>

#include <memory>
#include <optional>

namespace {

using FreshPlayer::addSuiteRows;
using FreshPlayer::describe;
using FreshPlayer::gameBuild;
using FreshPlayer::gameStarted;
using User = FreshSystem::User;

const QString kInvite = QStringLiteral("zentho://join/fresh-desktop");

QString playerPath(const QString& relative) {
    return FreshSystem::home(User::player) + QLatin1Char('/') + relative;
}

} // namespace

class TestFreshDebianDesktop : public QObject {
    Q_OBJECT

    std::unique_ptr<TestServer> server_;
    std::optional<PublishedRelease> release_;

    int servedGameArchives() const {
        server_->awaitLogged();
        return int(server_->servedFor(QStringLiteral("/release/zentho-%1-macos-arm64.tar.gz")
                                          .arg(PublishedRelease::gameVersion()))
                       .size());
    }

private slots:
    void initTestCase() {
        ZENTHO_REQUIRE(root);
        ZENTHO_REQUIRE(debootstrap);
        ZENTHO_REQUIRE(nginx);
        FreshPlayer::ensureBases();
        server_ = std::make_unique<TestServer>();
        release_.emplace(*server_);
        QVERIFY(QFileInfo::exists(release_->launcherArchive()));
    }

    void theUnpackedBundleSaysItsVersion_data() { addSuiteRows(); }
    void theUnpackedBundleSaysItsVersion() {
        QFETCH(QString, suite);
        const auto fresh = FreshPlayer::withUnpackedLauncher(suite, *release_);
        const FreshSystem::Result version = fresh->run({FreshPlayer::executable(), "--version"});
        QCOMPARE(version.output, release_->launcherVersion().toUtf8() + '\n');
        QCOMPARE(version.exitCode, 0);
    }

    // The twin: the system has no copy of what the bundle lost (bookworm has its own ICU 72 even,
    // which must not stand in for the bundle's), so the bundle says what it misses.
    void aBundleMissingALibraryNamesIt_data() {
        QTest::addColumn<QString>("suite");
        QTest::addColumn<QString>("library");
        for (const QString& suite : FreshPlayer::suites()) {
            for (const char* library : {"libQt6Core.so.6", "libicuuc.so.72"})
                QTest::newRow(qPrintable(suite + QLatin1Char(' ') + QLatin1String(library)))
                    << suite << QString::fromLatin1(library);
        }
    }
    void aBundleMissingALibraryNamesIt() {
        QFETCH(QString, suite);
        QFETCH(QString, library);
        const auto fresh = FreshPlayer::withUnpackedLauncher(suite, *release_);
        const QString frameworks = FreshPlayer::bundle() + QStringLiteral("/Contents/Frameworks");
        QVERIFY(QFile::remove(fresh->hostPath(frameworks + QLatin1Char('/') + library)));
        const FreshSystem::Result version = fresh->run({FreshPlayer::executable(), "--version"});
        QCOMPARE(version.output,
                 QStringLiteral("ZENTHO Launcher cannot start: %1 is missing from its bundle (%2); "
                                "download the launcher again.\n")
                     .arg(library, frameworks)
                     .toUtf8());
        QCOMPARE(version.exitCode, 1);
    }

    // A library the bundle takes from the system, missing there (a desktop stripped of its fonts
    // library): the player is told to install it, not to download the launcher again.
    void aSystemMissingALibraryNamesIt_data() { addSuiteRows(); }
    void aSystemMissingALibraryNamesIt() {
        QFETCH(QString, suite);
        const auto fresh = FreshPlayer::withUnpackedLauncher(suite, *release_);
        const FreshSystem::Result removed =
            fresh->run({"/bin/sh", "-c", "rm /usr/lib/x86_64-linux-gnu/libfontconfig.so.1*"}, FreshSystem::User::root);
        QVERIFY2(removed.succeeded(), FreshPlayer::describe(removed).constData());
        const FreshSystem::Result version = fresh->run({FreshPlayer::executable(), "--version"});
        QCOMPARE(version.output, QByteArray("ZENTHO Launcher cannot start: this system lacks libfontconfig.so.1, which "
                                            "every desktop provides; install it with the system's package manager.\n"));
        QCOMPARE(version.exitCode, 1);
    }

    void aPlayerInstallsAndPlaysTheGame_data() { addSuiteRows(); }
    void aPlayerInstallsAndPlaysTheGame() {
        QFETCH(QString, suite);
        const auto fresh = FreshPlayer::withUnpackedLauncher(suite, *release_);
        fresh->trustCa(TestServer::caPath());
        const int servedBefore = servedGameArchives();

        const FreshSystem::Result started =
            fresh->run({FreshPlayer::executable(), kInvite}, User::player,
                       FreshPlayer::offscreenReleaseSettings(*release_));
        QVERIFY2(started.succeeded(), describe(started).constData());
        const std::optional<StandinGames::Record> game = gameStarted(*fresh);
        QVERIFY2(game, describe(started).constData());
        QCOMPARE(game->cwd, gameBuild());
        QCOMPARE(game->arguments, QStringList{kInvite});
        QCOMPARE(servedGameArchives(), servedBefore + 1);

        // The first start joined the player's desktop, pointing it at the unpacked bundle.
        const QByteArray entry = TestFiles::readFile(
            fresh->hostPath(playerPath(QStringLiteral(".local/share/applications/zentho-launcher.desktop"))));
        QVERIFY2(entry.contains("\nExec=" + FreshPlayer::executable().toUtf8() + " %u\n"),
                 entry.constData());
        QVERIFY(TestFiles::readFile(fresh->hostPath(playerPath(QStringLiteral(".config/mimeapps.list"))))
                    .contains("x-scheme-handler/zentho=zentho-launcher.desktop\n"));
    }

    // The twin: the same start on a system that does not trust the server's CA downloads nothing
    // and installs nothing; the launcher falls back to the seed game its bundle carries.
    void withoutTheCaNothingIsInstalled_data() { addSuiteRows(); }
    void withoutTheCaNothingIsInstalled() {
        QFETCH(QString, suite);
        const auto fresh = FreshPlayer::withUnpackedLauncher(suite, *release_);
        const int servedBefore = servedGameArchives();
        const QString seedRecord = playerPath(QStringLiteral("seed-record"));

        const FreshSystem::Result started = fresh->run(
            {FreshPlayer::executable(), kInvite}, User::player,
            FreshPlayer::offscreenReleaseSettings(*release_) +
                QStringList{QStringLiteral("ZENTHO_STANDIN_RECORD=") + seedRecord});
        QVERIFY2(started.succeeded(), describe(started).constData());
        const QByteArray seed = RealLauncher::waitForGameRecord(fresh->hostPath(seedRecord));
        QVERIFY2(seed.contains("\ncwd=" + FreshPlayer::bundle().toUtf8() +
                               "/Contents/Resources/SeedRuntime\n"),
                 seed.constData());
        QVERIFY(!QFileInfo::exists(fresh->hostPath(PublishedRelease::gameRecord())));
        QVERIFY(!QFileInfo::exists(fresh->hostPath(gameBuild())));
        QCOMPARE(servedGameArchives(), servedBefore);
    }
};

QTEST_GUILESS_MAIN(TestFreshDebianDesktop)
#include "TestFreshDebianDesktop.moc"
