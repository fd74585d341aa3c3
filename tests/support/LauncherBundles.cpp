#include "LauncherBundles.h"

#include "StandinGames.h"
#include "TestFiles.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTest>

#include <functional>

namespace LauncherBundles {

void makeFake(const QString& bundle, const QByteArray& label, const QString& recordPath) {
    TestFiles::writeScript(bundle + QStringLiteral("/Contents/MacOS/ZenthoLauncher"),
                           "printf '%s\\n' '" + label + "' \"$@\" >> '" + QFile::encodeName(recordPath) +
                               "'\n");
    TestFiles::writeFile(bundle + QStringLiteral("/Contents/Resources/label.txt"), label + "\n");
}

QByteArray recorded(const QString& recordPath) {
    return TestFiles::readFile(recordPath);
}

bool waitForRecorded(const QString& recordPath, const QByteArray& expected, int timeoutMs) {
    return QTest::qWaitFor([&] { return recorded(recordPath) == expected; }, timeoutMs);
}

QString buildDir() {
    return qEnvironmentVariable("ZENTHO_BUILD_DIR");
}

QString releaseTool() {
    return buildDir() + QStringLiteral("/tools/zentho-release");
}

QString testVerifier() {
    return buildDir() + QStringLiteral("/signing/test-verifier/zentho-codesign");
}

QString testKey() {
    return buildDir() + QStringLiteral("/signing/test.key");
}

QString developmentKey() {
    return buildDir() + QStringLiteral("/signing/development.key");
}

QString builtBundle() {
    return buildDir() + QStringLiteral("/ZenthoLauncher.app");
}

bool seal(const QString& bundle, const QString& key) {
    QProcess tool;
    tool.start(releaseTool(), {QStringLiteral("sign-bundle"), QStringLiteral("--key"), key, bundle});
    return tool.waitForFinished(30000) && tool.exitStatus() == QProcess::NormalExit &&
           tool.exitCode() == 0;
}

qint64 endedProcessIdentifier() {
    QProcess child;
    child.start(QStringLiteral("/bin/true"), {});
    child.waitForStarted();
    const qint64 pid = child.processId();
    child.waitForFinished();
    return pid;
}

bool processRuns(qint64 pid) {
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return false;
    const QByteArray line = stat.readAll();
    const qsizetype close = line.lastIndexOf(')');
    return close >= 0 && line.size() > close + 2 && line.at(close + 2) != 'Z';
}

namespace {

// The processes whose identifier and command line pass `test`.
QList<qint64>
processesWhere(const std::function<bool(qint64 pid, const QList<QByteArray>& argv)>& test) {
    QList<qint64> found;
    for (const QString& name : QDir(QStringLiteral("/proc")).entryList(QDir::Dirs)) {
        bool number = false;
        const qint64 pid = name.toLongLong(&number);
        if (number &&
            test(pid, TestFiles::readFile(QStringLiteral("/proc/%1/cmdline").arg(pid)).split('\0')))
            found.append(pid);
    }
    return found;
}

} // namespace

std::optional<qint64> finishScriptWaiting(const QString& scriptPath, int timeoutMs) {
    const QByteArray script = QFile::encodeName(scriptPath);
    std::optional<qint64> waiting;
    [[maybe_unused]] const bool found = QTest::qWaitFor(
        [&] {
            for (const qint64 shell : processesWhere([&](qint64, const QList<QByteArray>& argv) {
                     return argv.size() > 2 && argv[0] == "/bin/sh" && argv.contains(script);
                 })) {
                const QList<qint64> sleeping = processesWhere([&](qint64 pid,
                                                                  const QList<QByteArray>& argv) {
                    return StandinGames::parentProcess(pid) == shell && argv.value(0) == "sleep";
                });
                if (!sleeping.isEmpty())
                    waiting = shell;
            }
            return waiting.has_value();
        },
        timeoutMs);
    return waiting;
}

} // namespace LauncherBundles
