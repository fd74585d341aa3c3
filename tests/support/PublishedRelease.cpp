#include "PublishedRelease.h"

#include "FreshSystem.h"
#include "LauncherBundles.h"
#include "RealLauncher.h"
#include "ReleaseTool.h"
#include "StandinGames.h"
#include "TestServer.h"

#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

PublishedRelease::PublishedRelease(const TestServer& server)
    : launcherVersion_(RealLauncher::versionOf(LauncherBundles::builtBundle())) {
    QVERIFY2(!launcherVersion_.isEmpty(), "the built launcher does not say its version");
    const QString release = server.documentRoot() + QStringLiteral("/release");
    const QString urlBase = server.url(QStringLiteral("/release")).toString();

    // The bundle the build sealed must pass with the keys its own launcher trusts,
    // as the release that ships does.
    const ReleaseTool::Run launcher =
        ReleaseTool::packLauncherForPlayers(LauncherBundles::builtBundle(), launcherVersion_, urlBase, release);
    QVERIFY2(launcher.ok(), launcher.errors.constData());
    launcherArchive_ = launcher.line(QStringLiteral("archive"));
    launcherManifest_ = urlBase + QLatin1Char('/') + QFileInfo(launcher.line(QStringLiteral("manifest"))).fileName();

    QTemporaryDir source;
    StandinGames::recorder(source.path(), gameRecord(), 4);
    const ReleaseTool::Run game = ReleaseTool::packGame(source.path(), gameVersion(), urlBase, release);
    QVERIFY2(game.ok(), game.errors.constData());
    gameManifest_ = urlBase + QLatin1Char('/') + QFileInfo(game.line(QStringLiteral("manifest"))).fileName();
}

QString PublishedRelease::gameVersion() {
    return QStringLiteral("0.4.2");
}

QString PublishedRelease::gameRecord() {
    return FreshSystem::home(FreshSystem::User::player) + QStringLiteral("/game-record");
}

QString PublishedRelease::launcherArchiveName() const {
    return QFileInfo(launcherArchive_).fileName();
}
