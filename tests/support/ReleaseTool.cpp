#include "ReleaseTool.h"

#include "LauncherBundles.h"

#include <QFileInfo>
#include <QProcess>
#include <QTest>

namespace ReleaseTool {

Run run(const QStringList& arguments) {
    QProcess tool;
    tool.start(LauncherBundles::releaseTool(), arguments);
    Run result;
    if (!tool.waitForFinished(120000)) {
        tool.kill();
        tool.waitForFinished();
        return result;
    }
    result.output = tool.readAllStandardOutput();
    result.errors = tool.readAllStandardError();
    if (tool.exitStatus() == QProcess::NormalExit)
        result.exitCode = tool.exitCode();
    return result;
}

Run packGame(const QString& source, const QString& version, const QString& urlBase,
             const QString& out, const QStringList& extra) {
    return run(QStringList{QStringLiteral("pack"), QStringLiteral("--platform"),
                           QStringLiteral("macos-arm64"), QStringLiteral("--version"), version,
                           QStringLiteral("--executable"), QStringLiteral("zentho"),
                           QStringLiteral("--url-base"), urlBase, QStringLiteral("--out"), out} +
               extra + QStringList{source});
}

Run packLauncher(const QString& bundle, const QString& version, const QString& urlBase,
                 const QString& out, const QStringList& extra) {
    return run(QStringList{QStringLiteral("pack"), QStringLiteral("--platform"),
                           QStringLiteral("macos-launcher-arm64"), QStringLiteral("--version"),
                           version, QStringLiteral("--executable"), QFileInfo(bundle).fileName(),
                           QStringLiteral("--url-base"), urlBase, QStringLiteral("--out"), out} +
               extra + QStringList{bundle});
}

QString standinGame020() {
    return LauncherBundles::buildDir() + QStringLiteral("/standin-0.2.0/zentho");
}

QString launcherBundle020() {
    return LauncherBundles::buildDir() + QStringLiteral("/e2e-bundles/0.2.0/ZenthoLauncher.app");
}

void copyTree(const QString& from, const QString& to) {
    QProcess cp;
    cp.start(QStringLiteral("/bin/cp"), {QStringLiteral("-a"), from, to});
    QVERIFY2(cp.waitForFinished(60000) && cp.exitStatus() == QProcess::NormalExit &&
                 cp.exitCode() == 0,
             cp.readAllStandardError().constData());
}

} // namespace ReleaseTool
