#include "Player.h"

#include "LauncherBundles.h"
#include "RealLauncher.h"
#include "TestServer.h"

#include <QFile>
#include <QProcess>

#include <optional>

Player::Player(const TestServer& server, const QString& dataHome, const QString& gameManifest)
    : server_(server), storage_(dataHome), manifest_(gameManifest) {}

QString Player::press() const {
    const QString record = storage_.dataHome() + QStringLiteral(".game-record");
    QFile::remove(record);
    RealLauncher launcher(LauncherBundles::builtBundle(), storage_.dataHome());
    launcher.useManifests(manifest_, QStringLiteral("file:///dev/null/no-launcher-manifest.json"));
    launcher.recordGameStartIn(record);
    launcher.start(server_, QStringLiteral("zentho://invite/player"));
    const std::optional<int> exit = launcher.waitForExit();
    const QByteArray recorded = RealLauncher::waitForGameRecord(record, exit ? 20000 : 1000);
    if (recorded.isEmpty()) {
        qWarning("launcher ended with %d: %s", exit.value_or(-1), launcher.errors().constData());
        return {};
    }
    RealLauncher::terminateAndCollect(RealLauncher::recordedPid(recorded));
    return RealLauncher::recordedFolder(recorded);
}

Player::Run Player::run(const QStringList& arguments) const {
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("XDG_DATA_HOME"), storage_.dataHome());
    process.setProcessEnvironment(environment);
    const QStringList command =
        server_.commandTrustingCa(RealLauncher::executableOf(LauncherBundles::builtBundle()), arguments);
    process.start(command.first(), command.mid(1));
    if (!process.waitForFinished(120000)) {
        RealLauncher::stop(process);
        return {};
    }
    return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1,
            QString::fromUtf8(process.readAllStandardOutput()), QString::fromUtf8(process.readAllStandardError())};
}

int Player::verify(const QString& version) const {
    const Run checked = run({QStringLiteral("--verify"), version});
    if (checked.exitCode != 0)
        qWarning("--verify %s: %s%s", qPrintable(version), qPrintable(checked.output), qPrintable(checked.errors));
    return checked.exitCode;
}
