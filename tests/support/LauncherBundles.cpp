#include "LauncherBundles.h"

#include "TestFiles.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTest>

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

} // namespace LauncherBundles
