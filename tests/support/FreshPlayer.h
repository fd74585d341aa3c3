#pragma once

#include "FreshSystem.h"
#include "StandinGames.h"

#include <QByteArray>

#include <QString>
#include <QStringList>

#include <memory>
#include <optional>

class PublishedRelease;

// The player of a fresh system, doing what the README's section for players says: the launcher
// archive downloaded into ~/Downloads, unpacked into ~/Games with tar, started from there.
namespace FreshPlayer {

// The systems players are shown to run the launcher on: Debian 13 and Debian 12.
QStringList suites();
// One row of test data for each of them, in a column "suite".
void addSuiteRows();
// Makes their bases unless cached (minutes each, the progress shown), then only reads stamps.
void ensureBases();

// Where the README has the launcher unpacked, and its executable there, inside the system.
QString bundle();
QString executable();

// Puts `release`'s launcher archive into the player's ~/Downloads (the fresh systems have no
// downloader; the archive is the file the release server serves) and unpacks it as the README
// says: mkdir -p ~/Games && tar -xzf <archive> -C ~/Games.
FreshSystem::Result unpackLauncher(FreshSystem& fresh, const PublishedRelease& release);

// A fresh `suite` system reaching `display` (or none), with libOpenGL.so.0 added, whose player
// has unpacked `release`'s launcher; an unpacking that failed is warned about, and shows in the
// tests as a launcher that is not there.
std::unique_ptr<FreshSystem> withUnpackedLauncher(const QString& suite, const PublishedRelease& release,
                                                  const QString& display = {});

// What a launcher started by the player is given beyond the player's own environment: the
// release's manifests on the test server instead of the real release server; the launcher
// manifest at `launcherManifest` instead of the release's when one is given.
QStringList releaseSettings(const PublishedRelease& release, const QString& launcherManifest = {});
// The same for a launcher that must show its window without a display.
QStringList offscreenReleaseSettings(const PublishedRelease& release, const QString& launcherManifest = {});

// Where the launcher installs the release's game build inside the system.
QString gameBuild();
// The record of the release's game once it has started in `fresh`; none when it did not within
// `timeoutMs`.
std::optional<StandinGames::Record> gameStarted(const FreshSystem& fresh, int timeoutMs = 20000);

// A run's exit code and output, for a failure message.
QByteArray describe(const FreshSystem::Result& result);

} // namespace FreshPlayer
