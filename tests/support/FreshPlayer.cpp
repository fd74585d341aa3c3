#include "FreshPlayer.h"

#include "PublishedRelease.h"

#include <QFileInfo>
#include <QTest>

namespace FreshPlayer {

QStringList suites() {
    return {QStringLiteral("trixie"), QStringLiteral("bookworm")};
}

void addSuiteRows() {
    QTest::addColumn<QString>("suite");
    for (const QString& suite : suites())
        QTest::newRow(qPrintable(suite)) << suite;
}

void ensureBases() {
    for (const QString& suite : suites())
        FreshDebianBase(suite).ensure([](const QString& line) { qInfo().noquote() << line; });
}

QString bundle() {
    return FreshSystem::home(FreshSystem::User::player) + QStringLiteral("/Games/ZenthoLauncher.app");
}

QString executable() {
    return bundle() + QStringLiteral("/Contents/MacOS/ZenthoLauncher");
}

FreshSystem::Result unpackLauncher(FreshSystem& fresh, const PublishedRelease& release) {
    const QString downloaded = FreshSystem::home(FreshSystem::User::player) +
                               QStringLiteral("/Downloads/") + release.launcherArchiveName();
    fresh.copyIn(release.launcherArchive(), downloaded);
    return fresh.run({"/bin/sh", "-c", "mkdir -p ~/Games && tar -xzf \"$1\" -C ~/Games", "sh",
                      downloaded});
}

std::unique_ptr<FreshSystem> withUnpackedLauncher(const QString& suite, const PublishedRelease& release,
                                                  const QString& display) {
    auto fresh = std::make_unique<FreshSystem>(suite, display);
    const FreshSystem::Result unpacking = unpackLauncher(*fresh, release);
    if (!unpacking.succeeded())
        qWarning("unpacking the launcher failed: %s", describe(unpacking).constData());
    return fresh;
}

QStringList releaseSettings(const PublishedRelease& release, const QString& launcherManifest) {
    return {QStringLiteral("ZENTHO_UPDATE_MANIFEST=") + release.gameManifest(),
            QStringLiteral("ZENTHO_LAUNCHER_UPDATE_MANIFEST=") +
                (launcherManifest.isEmpty() ? release.launcherManifest() : launcherManifest)};
}

QStringList offscreenReleaseSettings(const PublishedRelease& release, const QString& launcherManifest) {
    return releaseSettings(release, launcherManifest) + QStringList{QStringLiteral("QT_QPA_PLATFORM=offscreen")};
}

QString gameBuild() {
    return FreshSystem::home(FreshSystem::User::player) +
           QStringLiteral("/.local/share/Zentho/launcher/versions/") + PublishedRelease::gameVersion();
}

std::optional<StandinGames::Record> gameStarted(const FreshSystem& fresh, int timeoutMs) {
    return StandinGames::waitForRecord(fresh.hostPath(PublishedRelease::gameRecord()), timeoutMs);
}

QByteArray describe(const FreshSystem::Result& result) {
    return "exit " + QByteArray::number(result.exitCode) + ": " + result.output;
}

} // namespace FreshPlayer
