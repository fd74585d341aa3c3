#pragma once

#include "LauncherStorage.h"

#include <QString>
#include <QStringList>

class TestServer;

// One player's real launcher (the built bundle) with its own data home, reading the game's
// manifest at `gameManifest` on the test server and no launcher update, as the end-to-end tests
// of releases need it: a press of the main button, and the launcher's own check of a saved build.
class Player {
public:
    Player(const TestServer& server, const QString& dataHome, const QString& gameManifest);

    // One press (an invite link opened in the launcher); the folder the game started in, or
    // empty, with what the launcher wrote logged, when none started within a minute.
    QString press() const;
    // The launcher run with `arguments` and no display (--verify, --repair...), to its end.
    struct Run {
        int exitCode = -1; // -1 when it crashed or did not end within two minutes
        QString output;
        QString errors;
    };
    Run run(const QStringList& arguments) const;
    // The launcher's --verify `version`: its exit status, or -1 when it did not end in time.
    int verify(const QString& version) const;
    LauncherStorage storage() const { return storage_; }

private:
    const TestServer& server_;
    LauncherStorage storage_;
    QString manifest_;
};
