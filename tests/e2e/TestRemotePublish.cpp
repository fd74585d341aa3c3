// zentho-release publish --to-remote: releases uploaded through rclone to a real WebDAV server
// (rclone serve webdav) over nginx's document root, then installed and updated from there by the
// real launcher; the uploads asked for in the folder publish's order; a publish that fails
// part-way leaves the old release served and a rerun completes the new one.

#include "ChunkTraffic.h"
#include "LauncherTestScope.h"
#include "Player.h"
#include "RealLauncher.h"
#include "ReleaseTool.h"
#include "TestFiles.h"
#include "TestRequirements.h"
#include "TestServer.h"
#include "WebDavRemote.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QStandardPaths>
#include <QTest>

#include <map>
#include <optional>

using ReleaseTool::Run;

namespace {

const QString kBase = QStringLiteral("https://h.invalid/release");
const QString kChunks = QStringLiteral("https://h.invalid/chunks");

// Every file under `folder` with its bytes, by relative path.
std::map<QString, QByteArray> treeOf(const QString& folder) {
    std::map<QString, QByteArray> files;
    QDirIterator it(folder, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString file = it.next();
        files[QDir(folder).relativeFilePath(file)] = TestFiles::readFile(file);
    }
    return files;
}

} // namespace

class TestRemotePublish : public QObject {
    Q_OBJECT

    std::optional<LauncherTestScope> scope_;
    std::optional<WebDavRemote> remote_;

    QString path(const QString& relative) const { return scope_->path(relative); }

    // Game `version`, packed with chunks into the test's store.
    QString pack(const QString& version, const QString& base, const QString& chunksUrl) {
        const QString game = path(QStringLiteral("game-") + version);
        ReleaseTool::makeSmallGame(game, version);
        const Run packed = ReleaseTool::packGameWithChunks(game, version, base, path(QStringLiteral("dist-") + version),
                                                           path(QStringLiteral("store")), chunksUrl);
        if (!packed.ok())
            qWarning("pack: %s", packed.errors.constData());
        return packed.line(QStringLiteral("manifest"));
    }
    // A WebDAV server over the test's folder "served" with 0.3.0 published to it; the folder, or
    // empty when that publish failed.
    QString servedWith030() {
        const QString served = path(QStringLiteral("served"));
        TestFiles::makeFolder(served);
        remote_.emplace(served);
        return publishRemote(pack(QStringLiteral("0.3.0"), kBase, kChunks)).ok() ? served : QString();
    }
    Run publishRemote(const QString& manifest, const QStringList& extra = {}) {
        return ReleaseTool::run(QStringList{QStringLiteral("publish"), QStringLiteral("--to-remote"),
                                            WebDavRemote::remoteName(), QStringLiteral("--chunks"),
                                            path(QStringLiteral("store"))} +
                                extra + QStringList{manifest});
    }
    // An rclone that notes each run's arguments in `log` and, for an upload to a name ending in
    // `failOn`, fails as a dropped connection would, before anything reaches the server.
    QString loggingRclone(const QString& log, const QString& failOn = {}) {
        const QString script = path(QStringLiteral("rclone-logged"));
        TestFiles::writeScript(script, QStringLiteral("printf '%s\\n' \"$*\" >> '%1'\n"
                                                      "case \"$*\" in *copyto*'%2') [ -n '%2' ] && { echo 'connection reset' >&2; exit 1; };; esac\n"
                                                      "exec '%3' \"$@\"\n")
                                           .arg(log, failOn, QStandardPaths::findExecutable(QStringLiteral("rclone")))
                                           .toUtf8());
        return script;
    }
private slots:
    void initTestCase() {
        ZENTHO_REQUIRE(rclone);
        QVERIFY(RealLauncher::becomeSubreaper());
    }
    void init() { scope_.emplace(); }
    void cleanup() {
        remote_.reset();
        scope_.reset();
    }

    // What the remote gets is byte for byte what a folder publish lays out, and the launcher
    // installs from it and then updates from its chunks.
    void aReleaseUploadedToWebDavIsServedAndUpdatedFromChunks() {
        ZENTHO_REQUIRE(root);
        ZENTHO_REQUIRE(nginx);
        TestServer server;
        const WebDavRemote remote(server.documentRoot());
        const QString base = server.url(QStringLiteral("/release")).toString();
        const QString chunks = server.url(QStringLiteral("/chunks")).toString();
        const QString manifestUrl = server.url(QStringLiteral("/release/macos-arm64-manifest.json")).toString();

        const QString first = pack(QStringLiteral("0.3.0"), base, chunks);
        const Run published = publishRemote(first);
        QVERIFY2(published.ok(), published.errors.constData());
        QVERIFY2(published.output.startsWith("chunks: zentho_webdav:chunks ("), published.output.constData());
        QVERIFY(published.output.endsWith("archive: zentho_webdav:release/zentho-0.3.0-macos-arm64.tar.gz\n"
                                          "manifest: zentho_webdav:release/macos-arm64-manifest.json\n"));
        const Run folder = ReleaseTool::publishWithChunks(path(QStringLiteral("folder")), path(QStringLiteral("store")), first);
        QVERIFY2(folder.ok(), folder.errors.constData());
        QCOMPARE(treeOf(server.documentRoot()), treeOf(path(QStringLiteral("folder"))));
        const Player player(server, path(QStringLiteral("data")), manifestUrl);
        QCOMPARE(player.press(), player.storage().build(QStringLiteral("0.3.0")));

        const QString second = pack(QStringLiteral("0.3.1"), base, chunks);
        const Run update = publishRemote(second);
        QVERIFY2(update.ok(), update.errors.constData());
        QVERIFY2(update.output.contains(" kept)\n"), update.output.constData());
        QVERIFY(ReleaseTool::publishWithChunks(path(QStringLiteral("folder")), path(QStringLiteral("store")), second).ok());
        QCOMPARE(treeOf(server.documentRoot()), treeOf(path(QStringLiteral("folder"))));

        const qsizetype mark = server.accessLog().size();
        QCOMPARE(player.press(), player.storage().build(QStringLiteral("0.3.1")));
        const QList<ChunkTraffic::Get> gets = ChunkTraffic::getsIn(server.accessLog().mid(mark));
        QVERIFY(!ChunkTraffic::chunkGets(gets, QStringLiteral("/chunks")).isEmpty());
        QVERIFY(!ChunkTraffic::fetched(gets, QStringLiteral("/release/zentho-0.3.1-macos-arm64.tar.gz")));
    }
    // The twin: a remote that answers nothing gets a one-line failure and nothing is published.
    void aRemoteThatDoesNotAnswerFailsWithOneLine() {
        TestFiles::makeFolder(path(QStringLiteral("served")));
        WebDavRemote remote(path(QStringLiteral("served")));
        remote.stop();
        const Run refused = publishRemote(pack(QStringLiteral("0.3.0"), kBase, kChunks));
        QCOMPARE(refused.exitCode, 1);
        QVERIFY2(refused.failedWithOneLine(), refused.errors.constData());
        QVERIFY2(refused.errors.startsWith("zentho-release publish: rclone lsjson failed"), refused.errors.constData());
    }

    // Chunks, index, archive, signature, manifest: the same order as the folder publish, each
    // manifest last; a failure at the last step leaves the old manifest served and a rerun
    // uploads only what is missing.
    void aPublishThatFailsPartWayIsFinishedByARerun() {
        const QString served = servedWith030();
        QVERIFY(!served.isEmpty());
        const QByteArray old = TestFiles::readFile(served + QStringLiteral("/release/macos-arm64-manifest.json"));

        const QString log = path(QStringLiteral("rclone.log"));
        const QString newer = pack(QStringLiteral("0.3.1"), kBase, kChunks);
        const QStringList failing{QStringLiteral("--rclone"), loggingRclone(log, QStringLiteral("-manifest.json"))};
        const Run failed = publishRemote(newer, failing);
        QCOMPARE(failed.exitCode, 1);
        QVERIFY2(failed.errors.startsWith("zentho-release publish: rclone copyto failed (status 1): connection reset"),
                 failed.errors.constData());
        QCOMPARE(TestFiles::readFile(served + QStringLiteral("/release/macos-arm64-manifest.json")), old);
        QVERIFY(QFileInfo::exists(served + QStringLiteral("/release/zentho-0.3.1-macos-arm64.tar.gz")));

        QStringList asked;
        for (const QByteArray& line : TestFiles::readFile(log).split('\n')) {
            const QList<QByteArray> words = line.split(' ');
            const int verb = int(words.indexOf("copy") >= 0 ? words.indexOf("copy") : words.indexOf("copyto"));
            if (verb >= 0)
                asked << QString::fromUtf8(words[verb] + ' ' + words.last());
        }
        QCOMPARE(asked, (QStringList{QStringLiteral("copy zentho_webdav:chunks"),
                                     QStringLiteral("copyto zentho_webdav:release/zentho-0.3.1-macos-arm64.chunks.json"),
                                     QStringLiteral("copyto zentho_webdav:release/zentho-0.3.1-macos-arm64.tar.gz"),
                                     QStringLiteral("copyto zentho_webdav:release/macos-arm64-manifest.json")}));

        const Run rerun = publishRemote(newer);
        QVERIFY2(rerun.ok(), rerun.errors.constData());
        QVERIFY2(rerun.output.contains("(0 copied, "), rerun.output.constData());
        QVERIFY(rerun.output.contains("index: zentho_webdav:release/zentho-0.3.1-macos-arm64.chunks.json (kept)\n"));
        QVERIFY(rerun.output.contains("archive: zentho_webdav:release/zentho-0.3.1-macos-arm64.tar.gz (kept)\n"));
        QCOMPARE(TestFiles::readFile(served + QStringLiteral("/release/macos-arm64-manifest.json")), TestFiles::readFile(newer));
    }

    // Published content is never replaced on a remote either, and nothing is uploaded then.
    void anArchiveWithOtherContentIsRefusedBeforeAnyUpload() {
        const QString served = servedWith030();
        QVERIFY(!served.isEmpty());
        const std::map<QString, QByteArray> before = treeOf(served);

        TestFiles::writeFile(path(QStringLiteral("game-0.3.0/extra.txt")), "other content\n");
        const Run repacked = ReleaseTool::packGameWithChunks(path(QStringLiteral("game-0.3.0")), QStringLiteral("0.3.0"), kBase,
                                                             path(QStringLiteral("dist-0.3.0")), path(QStringLiteral("store")),
                                                             kChunks, {QStringLiteral("--force")});
        QVERIFY2(repacked.ok(), repacked.errors.constData());
        const QString log = path(QStringLiteral("rclone.log"));
        const Run refused = publishRemote(repacked.line(QStringLiteral("manifest")),
                                          {QStringLiteral("--rclone"), loggingRclone(log)});
        QCOMPARE(refused.exitCode, 1);
        QVERIFY2(refused.errors.contains("zentho_webdav:release/zentho-0.3.0-macos-arm64.tar.gz is already "
                                         "published with other content"),
                 refused.errors.constData());
        QVERIFY(!TestFiles::readFile(log).contains("copy"));
        QCOMPARE(treeOf(served), before);
    }

    void oneDestinationIsNeeded() {
        const QString manifest = QStringLiteral("/nonexistent/macos-arm64-manifest.json");
        for (const QStringList& arguments :
             {QStringList{QStringLiteral("publish"), manifest},
              QStringList{QStringLiteral("publish"), QStringLiteral("--to"), path(QStringLiteral("www")),
                          QStringLiteral("--to-remote"), WebDavRemote::remoteName(), manifest},
              QStringList{QStringLiteral("publish"), QStringLiteral("--to"), path(QStringLiteral("www")),
                          QStringLiteral("--rclone"), QStringLiteral("rclone"), manifest}}) {
            const Run refused = ReleaseTool::run(arguments);
            QCOMPARE(refused.exitCode, 2);
            QVERIFY2(refused.failedWithOneLine(), refused.errors.constData());
        }
    }
};

QTEST_MAIN(TestRemotePublish)
#include "TestRemotePublish.moc"
