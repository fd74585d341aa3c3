#pragma once

#include <QString>

class TestServer;

// What a player finds on the release server, made the way a publisher makes it with
// zentho-release: the built launcher bundle packed as its own release (sealed by the build, so
// pack checks it against the keys the launcher trusts), and a game release whose program is a
// shell script that records its start, since a fresh system has none of the libraries the
// stand-in game is built on. Both go into the server's /release folder.
//
// The game's record is the one StandinGames::recorder() writes, at gameRecord() inside the
// player's home, where the game can write whatever system it runs on.
class PublishedRelease {
public:
    // Fails the calling test (QVERIFY) when pack does.
    explicit PublishedRelease(const TestServer& server);

    // The built bundle's own version, as its --version says on the host.
    QString launcherVersion() const { return launcherVersion_; }
    static QString gameVersion();
    // The path inside a fresh system where the game writes its record.
    static QString gameRecord();

    // The launcher archive on the host, as the player downloads it, and its file name.
    QString launcherArchive() const { return launcherArchive_; }
    QString launcherArchiveName() const;
    // The addresses of the two manifests on the server.
    QString launcherManifest() const { return launcherManifest_; }
    QString gameManifest() const { return gameManifest_; }

private:
    QString launcherVersion_;
    QString launcherArchive_;
    QString launcherManifest_;
    QString gameManifest_;
};
