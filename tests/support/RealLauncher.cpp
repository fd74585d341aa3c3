#include "RealLauncher.h"

#include "TestServer.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTest>

#include <csignal>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

RealLauncher::RealLauncher(const QString& bundle, const QString& dataHome)
    : bundle_(bundle), env_(QProcessEnvironment::systemEnvironment()) {
    env_.insert(QStringLiteral("XDG_DATA_HOME"), dataHome);
    env_.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    env_.insert(QStringLiteral("QT_QUICK_BACKEND"), QStringLiteral("software"));
}

RealLauncher::~RealLauncher() {
    if (process_.state() != QProcess::NotRunning) {
        process_.kill();
        process_.waitForFinished();
    }
}

void RealLauncher::useManifests(const QString& gameManifest, const QString& launcherManifest) {
    env_.insert(QStringLiteral("ZENTHO_UPDATE_MANIFEST"), gameManifest);
    env_.insert(QStringLiteral("ZENTHO_LAUNCHER_UPDATE_MANIFEST"), launcherManifest);
}

void RealLauncher::recordGameStartIn(const QString& recordPath) {
    env_.insert(QStringLiteral("ZENTHO_STANDIN_RECORD"), recordPath);
}

void RealLauncher::start(const TestServer& server, const QString& invite) {
    const QStringList launcher{executableOf(bundle_), invite};
    const QStringList command =
        wrapper_.isEmpty() ? server.commandTrustingCa(launcher.first(), launcher.mid(1))
                           : server.commandTrustingCa(wrapper_.first(), wrapper_.mid(1) + launcher);
    process_.setProcessEnvironment(env_);
    process_.setStandardOutputFile(QProcess::nullDevice());
    process_.setProgram(command.first());
    process_.setArguments(command.mid(1));
    process_.start();
}

std::optional<int> RealLauncher::waitForExit(int timeoutMs) {
    // waitForFinished() answers false for a process that has already ended.
    const bool ended = process_.state() == QProcess::NotRunning || process_.waitForFinished(timeoutMs);
    errors_ = process_.readAllStandardError();
    if (!ended) {
        process_.kill();
        process_.waitForFinished();
        return std::nullopt;
    }
    if (process_.exitStatus() != QProcess::NormalExit)
        return std::nullopt;
    return process_.exitCode();
}

bool RealLauncher::stillRunningAfter(int timeoutMs) {
    return !process_.waitForFinished(timeoutMs) && process_.state() != QProcess::NotRunning;
}

qint64 RealLauncher::launcherPid(int timeoutMs) const {
    // Every program on the way (unshare, sh, a wrapper) executes the next in the same process,
    // which ends up as the launcher; other tests' launchers of the same bundle are not it.
    const QString executable = QFileInfo(executableOf(bundle_)).canonicalFilePath();
    const qint64 pid = process_.processId();
    QDeadlineTimer deadline(timeoutMs);
    do {
        if (pid > 0 && QFile::symLinkTarget(QStringLiteral("/proc/%1/exe").arg(pid)) == executable)
            return pid;
        QTest::qWait(20);
    } while (!deadline.hasExpired());
    return 0;
}

QString RealLauncher::executableOf(const QString& bundle) {
    return bundle + QStringLiteral("/Contents/MacOS/ZenthoLauncher");
}

QString RealLauncher::versionOf(const QString& bundle) {
    QProcess launcher;
    launcher.start(executableOf(bundle), {QStringLiteral("--version")});
    if (!launcher.waitForFinished(20000) || launcher.exitStatus() != QProcess::NormalExit ||
        launcher.exitCode() != 0)
        return {};
    return QString::fromUtf8(launcher.readAllStandardOutput()).trimmed();
}

QByteArray RealLauncher::waitForGameRecord(const QString& path, int timeoutMs) {
    QDeadlineTimer deadline(timeoutMs);
    for (;;) {
        QFile file(path);
        if (file.open(QIODevice::ReadOnly)) {
            const QByteArray text = file.readAll();
            if (recordedPid(text) > 0 && text.endsWith('\n'))
                return text;
        }
        if (deadline.hasExpired())
            return {};
        QTest::qWait(50);
    }
}

qint64 RealLauncher::recordedPid(const QByteArray& record) {
    for (const QByteArray& line : record.split('\n')) {
        if (line.startsWith("pid="))
            return line.mid(4).toLongLong();
    }
    return 0;
}

QString RealLauncher::recordedFolder(const QByteArray& record) {
    for (const QByteArray& line : record.split('\n')) {
        if (line.startsWith("cwd="))
            return QFile::decodeName(line.mid(4));
    }
    return {};
}

namespace {

// Every process whose program (from /proc/<pid>/exe) `matches`.
template <typename Matches>
QList<qint64> processesWhoseProgram(Matches matches) {
    QList<qint64> found;
    const QStringList entries = QDir(QStringLiteral("/proc")).entryList(QDir::Dirs);
    for (const QString& entry : entries) {
        bool number = false;
        const qint64 pid = entry.toLongLong(&number);
        if (number && matches(QFile::symLinkTarget(QStringLiteral("/proc/%1/exe").arg(pid))))
            found << pid;
    }
    return found;
}

} // namespace

QList<qint64> RealLauncher::processesRunning(const QString& path) {
    return processesWhoseProgram([&](const QString& exe) { return exe == path; });
}

QList<qint64> RealLauncher::processesRunningFrom(const QString& folder) {
    const QString inside = QDir::cleanPath(folder) + QLatin1Char('/');
    return processesWhoseProgram([&](const QString& exe) { return exe.startsWith(inside); });
}

void RealLauncher::terminateAndCollect(qint64 pid) {
    ::kill(static_cast<pid_t>(pid), SIGTERM);
    QDeadlineTimer deadline(10000);
    while (!deadline.hasExpired()) {
        const pid_t collected = ::waitpid(static_cast<pid_t>(pid), nullptr, WNOHANG);
        if (collected == pid || (collected < 0 && ::kill(static_cast<pid_t>(pid), 0) != 0))
            return;
        QTest::qWait(50);
    }
    ::kill(static_cast<pid_t>(pid), SIGKILL);
    ::waitpid(static_cast<pid_t>(pid), nullptr, 0);
}

bool RealLauncher::becomeSubreaper() {
    return ::prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) == 0;
}

void RealLauncher::stop(QProcess& launcher) {
    launcher.terminate();
    if (!launcher.waitForFinished(10000)) {
        launcher.kill();
        launcher.waitForFinished();
    }
}
