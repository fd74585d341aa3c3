// The launcher's update of itself from chunks, end to end with real processes: a copy of the built
// 0.1.190 bundle updates to a launcher release 0.2.0 that zentho-release sealed and packed with a
// chunk store and a pack. The running bundle gives every chunk it shares with 0.2.0, the pack the
// rest, the seal is checked on the bundle put together, and the new launcher starts from the old
// path. A pack that is spoilt on the server ends in the archive's update instead.

#include "ChunkTraffic.h"
#include "InstalledLauncher.h"
#include "LauncherBundles.h"
#include "LauncherStorage.h"
#include "LauncherTestScope.h"
#include "RealLauncher.h"
#include "ReleaseTool.h"
#include "TestFiles.h"
#include "TestRequirements.h"
#include "TestServer.h"

#include "formats/ChunkIndex.h"
#include "formats/ChunkPack.h"
#include "formats/ReleaseManifest.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSet>
#include <QTest>

#include <algorithm>
#include <optional>

using ReleaseTool::Run;
using namespace ChunkTraffic;

class TestLauncherSelfUpdateChunks : public QObject {
    Q_OBJECT

    std::optional<LauncherTestScope> scope_;
    ReleaseManifest manifest_;
    ChunkIndex index_;

    QString path(const QString& relative) const { return scope_->path(relative); }
    QString installedBundle() const { return path(QStringLiteral("Applications/ZenthoLauncher.app")); }
    QString dataHome() const { return path(QStringLiteral("data")); }
    QString launcherRoot() const { return LauncherStorage(dataHome()).root(); }

    // The user's copy of the launcher, 0.1.190.
    void installOldLauncher() {
        TestFiles::makeFolder(path(QStringLiteral("Applications")));
        QVERIFY(InstalledLauncher::install(installedBundle()));
    }

    // Seals a copy of the 0.2.0 bundle and packs it with its chunks into the server's /chunks
    // store and a pack beside the archive in /release. Returns the launcher manifest's URL.
    QString publishLauncher(TestServer& server) {
        TestFiles::makeFolder(path(QStringLiteral("src")));
        const QString bundle = path(QStringLiteral("src/ZenthoLauncher.app"));
        InstalledLauncher::sealedCopy(ReleaseTool::launcherBundle020(), bundle);
        const Run packed = ReleaseTool::packLauncher(
            bundle, QStringLiteral("0.2.0"), server.url(QStringLiteral("/release")).toString(),
            server.documentRoot() + QStringLiteral("/release"),
            {QStringLiteral("--chunks"), server.documentRoot() + QStringLiteral("/chunks"), QStringLiteral("--chunks-url"),
             server.url(QStringLiteral("/chunks")).toString(), QStringLiteral("--chunk-pack")});
        if (!packed.ok())
            qWarning("pack: %s", packed.errors.constData());
        manifest_ = ReleaseManifest::decode(TestFiles::readFile(packed.line(QStringLiteral("manifest"))));
        index_ = ChunkIndex::decode(TestFiles::readFile(packed.line(QStringLiteral("index"))));
        return server.url(QStringLiteral("/release/macos-launcher-arm64-manifest.json")).toString();
    }

    // Starts the installed launcher for an invite and waits for it to have updated itself to 0.2.0;
    // what the server was asked for meanwhile.
    QList<Get> updateThroughTheRealLauncher(TestServer& server, const QString& manifest) {
        const qsizetype mark = server.accessLog().size();
        RealLauncher old(installedBundle(), dataHome());
        old.useManifests(server.url(QStringLiteral("/release/macos-arm64-manifest.json")).toString(), manifest);
        old.recordGameStartIn(path(QStringLiteral("record")));
        old.start(server, QStringLiteral("zentho://invite/after-update"));
        const std::optional<int> exit = old.waitForExit();
        if (exit != std::optional<int>(0) ||
            !InstalledLauncher::waitForVersion(installedBundle(), QStringLiteral("0.2.0"), 30000))
            qWarning("the update did not end on 0.2.0: %s", old.errors().constData());
        const QByteArray recorded = RealLauncher::waitForGameRecord(path(QStringLiteral("record")));
        if (!recorded.startsWith("version=0.2.0\n"))
            qWarning("the new launcher did not start the game: %s", recorded.constData());
        if (!QTest::qWaitFor(
                [&] { return RealLauncher::processesRunning(RealLauncher::executableOf(installedBundle())).isEmpty(); },
                20000))
            qWarning("the new launcher is still running");
        server.awaitLogged();
        return getsIn(server.accessLog().mid(mark));
    }

    int distinctChunks() const {
        QSet<QString> all;
        for (const ChunkIndexEntry& entry : index_.entries)
            for (const ChunkRef& chunk : entry.chunks)
                all.insert(chunk.sha256);
        return int(all.size());
    }

private slots:
    void initTestCase() {
        ZENTHO_REQUIRE(root);
        ZENTHO_REQUIRE(nginx);
        QVERIFY(RealLauncher::becomeSubreaper());
        QVERIFY2(QFileInfo::exists(RealLauncher::executableOf(ReleaseTool::launcherBundle020())),
                 "the 0.2.0 launcher bundle is not built");
    }
    void init() { scope_.emplace(); }
    void cleanup() { scope_.reset(); }

    // Only the chunks 0.1.190's bundle lacks are asked for, from the pack, never the archive; the
    // bundle put together passes the seal check and is the new launcher, which starts the game.
    void theRunningBundleGivesWhatItSharesAndThePackTheRest() {
        TestServer server;
        installOldLauncher();
        const QString manifest = publishLauncher(server);
        QVERIFY(manifest_.chunks && manifest_.chunks->pack.isValid());
        QVERIFY(index_.entries.front().path == QStringLiteral("ZenthoLauncher.app"));
        const QList<Get> gets = updateThroughTheRealLauncher(server, manifest);
        QCOMPARE(RealLauncher::versionOf(installedBundle()), QStringLiteral("0.2.0"));
        QVERIFY(!fetched(gets, manifest_.url.path()));
        QVERIFY(fetched(gets, manifest_.chunks->index.path()));
        const QStringList asked = packedChunkGets(gets, manifest_.chunks->pack.path(), index_);
        qInfo("0.2.0's bundle: %d chunks, %lld of them asked for", distinctChunks(), qint64(asked.size()));
        QVERIFY2(!asked.isEmpty() && asked.size() < distinctChunks(), qPrintable(QString::number(asked.size())));
        QCOMPARE(QSet<QString>(asked.cbegin(), asked.cend()).size(), asked.size());
        QCOMPARE(chunkGets(gets, QStringLiteral("/chunks")), QStringList());
        QVERIFY(!QFileInfo::exists(launcherRoot() + QStringLiteral("/chunks")) ||
                QDir(launcherRoot() + QStringLiteral("/chunks")).isEmpty());
        // The swap leaves the emptied staging folder, as after an archive's update.
        const QStringList staging = QDir(launcherRoot()).entryList({QStringLiteral("launcher-staging-*")}, QDir::Dirs);
        QCOMPARE(staging.size(), 1);
        QVERIFY(QDir(launcherRoot() + QLatin1Char('/') + staging.first()).isEmpty());
    }

    // The twin: a pack spoilt on the server; the launcher update comes from its archive, as if
    // there were no chunks, and is the same new launcher.
    void aSpoiltPackGivesTheArchivesUpdate() {
        TestServer server;
        installOldLauncher();
        const QString manifest = publishLauncher(server);
        const QString pack = server.documentRoot() + manifest_.chunks->pack.path();
        QByteArray bytes = TestFiles::readFile(pack);
        QVERIFY(bytes.size() > 1000);
        for (qsizetype at = 0; at < bytes.size(); at += 4096)
            bytes[at] = char(bytes[at] ^ 0x40);
        TestFiles::writeFile(pack, bytes);
        const QList<Get> gets = updateThroughTheRealLauncher(server, manifest);
        QCOMPARE(RealLauncher::versionOf(installedBundle()), QStringLiteral("0.2.0"));
        QVERIFY(std::any_of(gets.cbegin(), gets.cend(), [&](const Get& get) { return get.path == manifest_.chunks->pack.path(); }));
        QVERIFY(fetched(gets, manifest_.url.path()));
    }
};

QTEST_GUILESS_MAIN(TestLauncherSelfUpdateChunks)
#include "TestLauncherSelfUpdateChunks.moc"
