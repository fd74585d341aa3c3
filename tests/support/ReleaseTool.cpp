#include "ReleaseTool.h"

#include "LauncherBundles.h"

#include <QFile>
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
    return LauncherBundles::buildDir() + QStringLiteral("/launcher-0.2.0/ZenthoLauncher.app");
}

QString sealedCopy(const QString& from, const QString& bundle) {
    copyTree(from, bundle);
    const Run sealed = run({QStringLiteral("sign-bundle"), QStringLiteral("--key"),
                            LauncherBundles::testKey(), bundle});
    if (!sealed.ok())
        QTest::qFail(qPrintable(QStringLiteral("sign-bundle failed: ") + QString::fromUtf8(sealed.errors)),
                     __FILE__, __LINE__);
    return bundle;
}

QString seedRuntimeOf(const QString& bundle) {
    return bundle + QStringLiteral("/Contents/Resources/SeedRuntime/zentho");
}

void flipOneByte(const QString& path) {
    QFile file(path);
    QVERIFY2(file.open(QIODevice::ReadWrite), qPrintable(path));
    const qint64 at = file.size() / 2;
    char byte = 0;
    QVERIFY(file.seek(at) && file.getChar(&byte));
    QVERIFY(file.seek(at) && file.putChar(char(byte ^ 0x01)));
}

void copyTree(const QString& from, const QString& to) {
    QProcess cp;
    cp.start(QStringLiteral("/bin/cp"), {QStringLiteral("-a"), from, to});
    QVERIFY2(cp.waitForFinished(60000) && cp.exitStatus() == QProcess::NormalExit &&
                 cp.exitCode() == 0,
             cp.readAllStandardError().constData());
}

} // namespace ReleaseTool
