// Releases served through a CDN's stand-in, nginx proxy_cache in front of an origin that sends
// the release server's cache headers (tools/nginx/release-cache.conf): players pressing the
// button while a release is being published always end with a whole build of one release, the
// origin serves each chunk once, and a name guessed before its release is out is not kept as
// "not found". The twin runs the same cache in front of an origin without those headers.

#include "LauncherBundles.h"
#include "LauncherTestScope.h"
#include "Player.h"
#include "RealLauncher.h"
#include "ReleaseTool.h"
#include "TestRequirements.h"
#include "TestServer.h"

#include <QFileInfo>
#include <QMap>
#include <QProcess>
#include <QRegularExpression>
#include <QTest>

#include <memory>
#include <optional>

using ReleaseTool::Run;

class TestPublishBehindCache : public QObject {
    Q_OBJECT

    std::optional<LauncherTestScope> scope_;
    std::unique_ptr<TestServer> server_;
    bool bare_ = false; // the cache in front of an origin without cache headers

    QUrl served(const QString& urlPath) const { return bare_ ? server_->bareEdgeUrl(urlPath) : server_->edgeUrl(urlPath); }

    QString path(const QString& relative) const { return scope_->path(relative); }
    QString manifestUrl() const {
        return served(QStringLiteral("/release/macos-arm64-manifest.json")).toString();
    }
    QString archivePath(const QString& version) const {
        return QStringLiteral("/release/zentho-%1-macos-arm64.tar.gz").arg(version);
    }

    // Game `version` packed with chunks to be served through the cache; returns its manifest.
    QString pack(const QString& version) {
        const QString game = path(QStringLiteral("game-") + version);
        ReleaseTool::makeSmallGame(game, version);
        const Run packed = ReleaseTool::packGameWithChunks(
            game, version, served(QStringLiteral("/release")).toString(), path(QStringLiteral("dist-") + version),
            path(QStringLiteral("store")), served(QStringLiteral("/chunks")).toString());
        if (!packed.ok())
            qWarning("pack: %s", packed.errors.constData());
        return packed.line(QStringLiteral("manifest"));
    }
    // publish into the origin's document root, started and left running.
    std::unique_ptr<QProcess> startPublish(const QString& manifest) const {
        auto publish = std::make_unique<QProcess>();
        publish->setProcessChannelMode(QProcess::ForwardedErrorChannel);
        publish->start(LauncherBundles::releaseTool(), {QStringLiteral("publish"), QStringLiteral("--to"),
                                                        server_->documentRoot(), QStringLiteral("--chunks"),
                                                        path(QStringLiteral("store")), manifest});
        return publish;
    }
    static bool finishedWell(QProcess& process) {
        // waitForFinished() is false for a process that has already ended.
        return (process.state() == QProcess::NotRunning || process.waitForFinished(120000)) &&
               process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
    }
    // The status a client gets for `urlPath` through the cache, as curl reports it.
    int statusOf(const QString& urlPath) const {
        QProcess curl;
        curl.start(QStringLiteral("curl"), {QStringLiteral("-s"), QStringLiteral("-o"), QStringLiteral("/dev/null"),
                                            QStringLiteral("-w"), QStringLiteral("%{http_code}"), QStringLiteral("--cacert"),
                                            TestServer::caPath(), served(urlPath).toString()});
        curl.waitForFinished(60000);
        return curl.readAllStandardOutput().toInt();
    }
    // Which of `versions` the build the game started in is, after the launcher's own check of it
    // passed; empty when the game did not start, the build is not one of them or not whole.
    static QString wholeBuildOf(const Player& player, const QString& started, const QStringList& versions) {
        const QString version = QFileInfo(started).fileName();
        if (started.isEmpty() || !versions.contains(version) || started != player.storage().build(version))
            return {};
        return player.verify(version) == 0 ? version : QString();
    }

private slots:
    void initTestCase() {
        ZENTHO_REQUIRE(root);
        ZENTHO_REQUIRE(nginx);
        QVERIFY(RealLauncher::becomeSubreaper());
    }
    void init() {
        scope_.emplace();
        server_ = std::make_unique<TestServer>();
    }
    void cleanup() {
        server_.reset();
        scope_.reset();
    }

    void playersDuringPublishesEndWithOneWholeRelease() {
        QVERIFY(finishedWell(*startPublish(pack(QStringLiteral("0.3.0")))));
        const Player steady(*server_, path(QStringLiteral("steady")), manifestUrl());
        QCOMPARE(steady.press(), steady.storage().build(QStringLiteral("0.3.0")));
        const Player neighbour(*server_, path(QStringLiteral("neighbour")), manifestUrl());
        QCOMPARE(neighbour.press(), neighbour.storage().build(QStringLiteral("0.3.0")));
        // A curious player guesses the next release's names before it is out.
        QCOMPARE(statusOf(archivePath(QStringLiteral("0.3.1"))), 404);

        QString previous = QStringLiteral("0.3.0");
        for (const QString& version : {QStringLiteral("0.3.1"), QStringLiteral("0.3.2"), QStringLiteral("0.3.3")}) {
            const QString manifest = pack(version);
            const std::unique_ptr<QProcess> publish = startPublish(manifest);
            const Player newcomer(*server_, path(QStringLiteral("new-") + version), manifestUrl());
            const QStringList either{previous, version};
            QVERIFY2(!wholeBuildOf(steady, steady.press(), either).isEmpty(), qPrintable(version));
            QVERIFY2(!wholeBuildOf(newcomer, newcomer.press(), either).isEmpty(), qPrintable(version));
            QVERIFY(finishedWell(*publish));
            // Once the publish is done, every player gets the new release: no cache kept the old
            // manifest.
            QCOMPARE(steady.press(), steady.storage().build(version));
            QCOMPARE(steady.verify(version), 0);
            // A second player behind the same cache updates from the chunks it now holds.
            QCOMPARE(neighbour.press(), neighbour.storage().build(version));
            previous = version;
        }
        QCOMPARE(statusOf(archivePath(QStringLiteral("0.3.1"))), 200);

        // Everything but the manifests is immutable: the origin served each chunk once, though
        // two players fetched it.
        QMap<QString, int> chunkGets;
        static const QRegularExpression chunkGet(QStringLiteral("\"GET (/chunks/\\S+) "));
        for (const QString& line : server_->originLog().split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
            const QRegularExpressionMatch match = chunkGet.match(line);
            if (match.hasMatch())
                ++chunkGets[match.captured(1)];
        }
        QVERIFY(!chunkGets.isEmpty());
        for (auto it = chunkGets.cbegin(); it != chunkGets.cend(); ++it)
            QVERIFY2(it.value() == 1, qPrintable(it.key()));
    }

    // The twin: the same cache in front of an origin that sends no cache headers keeps the old
    // manifest and the guessed name's "not found", so the new release does not reach players.
    void withoutTheHeadersTheCacheHoldsPlayersBack() {
        bare_ = true;
        QVERIFY(finishedWell(*startPublish(pack(QStringLiteral("0.3.0")))));
        const Player steady(*server_, path(QStringLiteral("steady")), manifestUrl());
        QCOMPARE(steady.press(), steady.storage().build(QStringLiteral("0.3.0")));
        QCOMPARE(statusOf(archivePath(QStringLiteral("0.3.1"))), 404);

        QVERIFY(finishedWell(*startPublish(pack(QStringLiteral("0.3.1")))));
        QCOMPARE(steady.press(), steady.storage().build(QStringLiteral("0.3.0")));
        QCOMPARE(statusOf(archivePath(QStringLiteral("0.3.1"))), 404);
        QVERIFY(QFileInfo::exists(server_->documentRoot() + archivePath(QStringLiteral("0.3.1"))));
    }
};

QTEST_MAIN(TestPublishBehindCache)
#include "TestPublishBehindCache.moc"
