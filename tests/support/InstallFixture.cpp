#include "InstallFixture.h"

#include "LauncherBundles.h"
#include "ManifestJson.h"
#include "StandinGames.h"
#include "TestFiles.h"

#include "storage/InstalledState.h"

#include <QCryptographicHash>
#include <QFile>
#include <QFileInfo>
#include <QTest>

namespace {

const QString kInvite = QStringLiteral("zentho://invite/install");
const QString kNoLauncherUpdate = QStringLiteral("file:///dev/null/no-launcher-manifest.json");

} // namespace

void InstallFixture::setUpSuite() {
    QVERIFY(RealLauncher::becomeSubreaper());
    QVERIFY(QFileInfo(RealLauncher::executableOf(LauncherBundles::builtBundle())).isExecutable());
    server_ = std::make_unique<TestServer>();
}

void InstallFixture::setUp() {
    dir_ = std::make_unique<QTemporaryDir>();
    adopted_.emplace();
    TestFiles::makeFolder(tmp());
    TestFiles::makeFolder(runtime());
    QVERIFY(QFile::setPermissions(runtime(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
}

void InstallFixture::tearDown() {
    // What the launchers left goes before the folders it runs from.
    adopted_.reset();
    dir_.reset();
}

void InstallFixture::installCurrent(const QString& version, const QString& dataHome) {
    const LauncherStorage at(dataHome.isEmpty() ? data() : dataHome);
    StandinGames::recorder(at.build(version), record(), 1.5);
    // The record names the build where the launcher will find it: in the test's own data home.
    TestFiles::writeFile(at.state(), InstalledState{version, build(version)}.encode());
}

InstallFixture::Published InstallFixture::publish(const QString& version, const QByteArray& archive,
                                                  const QString& location, const QByteArray& digestOf) {
    const QString name = QStringLiteral("game-%1.tar.gz").arg(++serial_);
    server_->writeFile(name, archive);
    const QString digest = QString::fromLatin1(
        QCryptographicHash::hash(digestOf.isEmpty() ? archive : digestOf, QCryptographicHash::Sha256).toHex());
    const QString archivePath = location + QLatin1Char('/') + name;
    server_->writeFile(name + QStringLiteral(".json"),
                       ManifestJson(version, server_->url(archivePath).toString(), digest));
    return {server_->url(QLatin1Char('/') + name + QStringLiteral(".json")).toString(), archivePath};
}

std::unique_ptr<RealLauncher> InstallFixture::launcher(const QString& gameManifest) const {
    auto real = std::make_unique<RealLauncher>(LauncherBundles::builtBundle(), data());
    real->useManifests(gameManifest, kNoLauncherUpdate);
    real->recordGameStartIn(record());
    real->environment().insert(QStringLiteral("TMPDIR"), tmp());
    // Its own runtime folder, so Qt makes none in the temporary folder.
    real->environment().insert(QStringLiteral("XDG_RUNTIME_DIR"), runtime());
    return real;
}

QString InstallFixture::press(RealLauncher& real) {
    QFile::remove(record());
    real.start(*server_, kInvite);
    const std::optional<int> exit = real.waitForExit(60000);
    if (exit != std::optional<int>(0))
        qWarning("launcher ended with %d: %s", exit.value_or(-1), real.errors().constData());
    return startedFolder();
}

QString InstallFixture::startedFolder() const {
    // The launcher has quit by now: a game it started has recorded itself already, or soon.
    const std::optional<StandinGames::Record> started = StandinGames::waitForRecord(record(), 20000);
    if (!started)
        return {};
    RealLauncher::terminateAndCollect(started->pid);
    return started->cwd;
}
