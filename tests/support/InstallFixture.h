#pragma once

#include "AdoptedProcesses.h"
#include "LauncherStorage.h"
#include "RealLauncher.h"
#include "TestServer.h"

#include <QByteArray>
#include <QString>
#include <QTemporaryDir>

#include <memory>
#include <optional>

// The real launcher installing game releases that a test server publishes, each test function
// in a fresh folder of its own (data home, temporary and runtime folders, the game's record).
// A test class derives from it and calls setUpSuite() from initTestCase() after saying what it
// needs of the machine, and setUp() and tearDown() from init() and cleanup().
class InstallFixture {
protected:
    void setUpSuite();
    void setUp();
    void tearDown();

    QString path(const QString& name) const { return dir_->filePath(name); }
    QString data() const { return path(QStringLiteral("data")); }
    QString tmp() const { return path(QStringLiteral("tmp")); }
    QString runtime() const { return path(QStringLiteral("runtime")); }
    QString record() const { return path(QStringLiteral("record")); }
    LauncherStorage storage() const { return LauncherStorage(data()); }
    QString build(const QString& version) const { return storage().build(version); }

    // Build `version`, a recorder, installed and current in the storage under `dataHome` (the
    // test's own data home unless given), as the launcher itself records it there.
    void installCurrent(const QString& version, const QString& dataHome = {});

    struct Published {
        QString manifest;    // its address
        QString archivePath; // the archive's path on the server, `location` included
    };
    // Puts `archive` on the server and a manifest for `version` that names it at `location` +
    // its path, with the digest of `digestOf` (the archive itself unless given).
    Published publish(const QString& version, const QByteArray& archive, const QString& location = {},
                      const QByteArray& digestOf = {});

    // A launcher of the built bundle with the test's data home, temporary and runtime folders,
    // reading `gameManifest` and no launcher manifest.
    std::unique_ptr<RealLauncher> launcher(const QString& gameManifest) const;
    // One press of the main button (through an invite link): the folder of the game that
    // started, which is then ended, or empty when none did.
    QString press(RealLauncher& real);
    QString press(const QString& gameManifest) { return press(*launcher(gameManifest)); }
    // The folder of the game that recorded its start in record(), which is then ended.
    QString startedFolder() const;

    std::unique_ptr<TestServer> server_;
    std::unique_ptr<QTemporaryDir> dir_;
    std::optional<AdoptedProcesses> adopted_;
    int serial_ = 0;
};
