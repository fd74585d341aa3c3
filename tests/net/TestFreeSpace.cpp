// Room on a small disk: a tmpfs in a private mount namespace, reached through the /proc root of
// the process that holds the namespace. The check before a download names the folder and both
// sizes, and a player whose storage is short reads exactly that after "Update failed: ".

#include "LauncherModelProbe.h"
#include "ManifestJson.h"
#include "RecordingPlatform.h"
#include "SmallDisk.h"
#include "StandinGames.h"
#include "TestArchives.h"
#include "TestFiles.h"
#include "TestRequirements.h"
#include "TestServer.h"

#include "errors/Failure.h"
#include "model/LauncherModel.h"
#include "net/FreeSpace.h"
#include "net/TransferLimits.h"
#include "net/TransferText.h"

#include <QTemporaryDir>
#include <QTest>

#include <memory>

class TestFreeSpace : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() { ZENTHO_REQUIRE(root); }

    void availableIsWhatTheDiskHasLeft() {
        SmallDisk disk(8);
        QVERIFY(!disk.path().isEmpty());
        QCOMPARE(FreeSpace::available(disk.path()), qint64(8) * 1024 * 1024);
        TestFiles::writeFile(disk.path() + QStringLiteral("/one"), QByteArray(1024 * 1024, 'x'));
        QCOMPARE(FreeSpace::available(disk.path()), qint64(7) * 1024 * 1024);
    }

    void needsThatFitPass() {
        SmallDisk disk(8);
        QVERIFY(!disk.path().isEmpty());
        FreeSpace::require({{disk.path(), 3'000'000}, {disk.path(), 3'000'000}}, 1024 * 1024);
    }

    // The twin: needs on one disk add up, the reserve comes on top, and the first folder names
    // the disk.
    void needsThatDoNotFitNameTheFolderAndBothSizes() {
        SmallDisk disk(8);
        QVERIFY(!disk.path().isEmpty());
        const QString inner = disk.path() + QStringLiteral("/downloads");
        TestFiles::makeFolder(inner);
        try {
            FreeSpace::require({{disk.path(), 4'000'000}, {inner, 4'000'000}}, 1'000'000);
            QFAIL("8 MB and a reserve fit on an 8 MiB disk");
        } catch (const DiskSpaceError& e) {
            QCOMPARE(QString::fromUtf8(e.what()),
                     QStringLiteral("Not enough free space in %1: 9.0 MB needed, 8.4 MB free.")
                         .arg(disk.path()));
        }
    }

    // A player with nothing that can start reads the refusal in the status line, and the small
    // disk holds no download.
    void playerReadsTheRefusal() {
        ZENTHO_REQUIRE(nginx);
        SmallDisk disk(24);
        QVERIFY(!disk.path().isEmpty());
        TestServer server;
        TestServer::trustInThisProcess();
        QTemporaryDir dir;
        const QString build = dir.filePath(QStringLiteral("build"));
        StandinGames::runsFor(build, 1);
        TestFiles::writeFile(build + QStringLiteral("/pad"),
                             TestFiles::randomBytes(16 * 1000 * 1000, 9));
        const QString archive = server.writeFile(
            QStringLiteral("game.tar.gz"),
            TestArchives::bytesOf(build, {QStringLiteral("zentho"), QStringLiteral("pad")}));
        server.writeFile(
            QStringLiteral("game.json"),
            ManifestJson(QStringLiteral("0.3.0"), server.url(QStringLiteral("/throttle/game.tar.gz")).toString(),
                         TestArchives::sha256sum(archive)));
        qputenv("ZENTHO_UPDATE_MANIFEST", server.url(QStringLiteral("/game.json")).toEncoded());
        qputenv("ZENTHO_LAUNCHER_UPDATE_MANIFEST", "file:///dev/null/none.json");
        qputenv("XDG_DATA_HOME", QFile::encodeName(disk.path()));

        // A launcher outside any bundle has no seed game, so nothing can start.
        RecordingPlatform platform(dir.filePath(QStringLiteral("ZenthoLauncher")));
        LauncherModel model(platform);
        model.updateAndPlay();
        QTRY_VERIFY_WITH_TIMEOUT(!model.busy(), 120000);
        const QString root = disk.path() + QStringLiteral("/Zentho/launcher");
        const qint64 free = FreeSpace::available(root);
        const qint64 archiveSize = QFileInfo(archive).size();
        QCOMPARE(
            model.status(),
            QStringLiteral("Update failed: Not enough free space in %1: %2 needed, %3 free.")
                .arg(root,
                     TransferText::size(2 * archiveSize + TransferLimits::defaultFreeSpaceReserve),
                     TransferText::size(free)));
        QVERIFY(!QFileInfo::exists(root + QStringLiteral("/downloads")));
        QCOMPARE(platform.quitCount, 0);
    }
};

QTEST_GUILESS_MAIN(TestFreeSpace)
#include "TestFreeSpace.moc"
