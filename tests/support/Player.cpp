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
    const qsizetype cwd = recorded.indexOf("cwd=");
    return cwd < 0 ? QString() : QFile::decodeName(recorded.mid(cwd + 4, recorded.indexOf('\n', cwd) - cwd - 4));
}

int Player::verify(const QString& version) const {
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("XDG_DATA_HOME"), storage_.dataHome());
    process.setProcessEnvironment(environment);
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    const QStringList command = server_.commandTrustingCa(
        RealLauncher::executableOf(LauncherBundles::builtBundle()), {QStringLiteral("--verify"), version});
    process.start(command.first(), command.mid(1));
    if (!process.waitForFinished(120000)) {
        RealLauncher::stop(process);
        return -1;
    }
    return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
}
