#include "ReleaseTool.h"

#include "LauncherBundles.h"
#include "TestArchives.h"
#include "TestFiles.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTest>

namespace ReleaseTool {

Run run(const QStringList& arguments, int timeoutMs) {
    QProcess tool;
    tool.start(LauncherBundles::releaseTool(), arguments);
    Run result;
    if (!tool.waitForFinished(timeoutMs)) {
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

QString Run::line(const QString& key) const {
    const QByteArray prefix = key.toUtf8() + ": ";
    for (const QByteArray& text : output.split('\n')) {
        if (text.startsWith(prefix))
            return QString::fromUtf8(text.mid(prefix.size()));
    }
    return {};
}

QString testSealKey() {
    return LauncherBundles::testKey() + QStringLiteral(".pub");
}

QString testSealKeyNext() {
    return LauncherBundles::buildDir() + QStringLiteral("/signing/test-next.key.pub");
}

QString testManifestKey() {
    return LauncherBundles::buildDir() + QStringLiteral("/signing/manifest-test.key");
}

QString testManifestKeyNext() {
    return LauncherBundles::buildDir() + QStringLiteral("/signing/manifest-test-next.key");
}

Run packGame(const QString& source, const QString& version, const QString& urlBase,
             const QString& out, const QStringList& extra, int timeoutMs) {
    return run(QStringList{QStringLiteral("pack"), QStringLiteral("--platform"),
                           QStringLiteral("macos-arm64"), QStringLiteral("--version"), version,
                           QStringLiteral("--executable"), QStringLiteral("zentho"),
                           QStringLiteral("--url-base"), urlBase, QStringLiteral("--out"), out} +
               extra + QStringList{source},
               timeoutMs);
}

Run packGameWithChunks(const QString& source, const QString& version, const QString& urlBase,
                       const QString& out, const QString& store, const QString& storeUrl,
                       const QStringList& extra) {
    return packGame(source, version, urlBase, out,
                    QStringList{QStringLiteral("--chunks"), store, QStringLiteral("--chunks-url"), storeUrl} + extra);
}

Run verify(const QString& manifest, const QString& archive, const QStringList& extra) {
    return run(QStringList{QStringLiteral("verify")} + extra + QStringList{manifest, archive});
}

Run verify(const Run& packed, const QStringList& extra) {
    return verify(packed.line(QStringLiteral("manifest")), packed.line(QStringLiteral("archive")), extra);
}

Run publishWithChunks(const QString& documentRoot, const QString& store, const QString& manifest) {
    return run({QStringLiteral("publish"), QStringLiteral("--to"), documentRoot, QStringLiteral("--chunks"), store,
                manifest});
}

Run packChunkedAndPublish(const QString& source, const QString& version, const ChunkedRelease& release,
                          const QStringList& extra) {
    const Run packed = packGameWithChunks(source, version, release.urlBase, release.out, release.store,
                                          release.storeUrl, extra);
    if (!packed.ok())
        return packed;
    const Run published = publishWithChunks(release.documentRoot, release.store, packed.line(QStringLiteral("manifest")));
    return published.ok() ? packed : published;
}

void makeSmallGame(const QString& folder, const QString& version) {
    TestFiles::makeFolder(folder);
    QFile::copy(standinGame020(), folder + QStringLiteral("/zentho"));
    QByteArray data = TestFiles::randomBytes(600000, 7);
    data.replace(300000, version.size(), version.toUtf8());
    TestFiles::writeFile(folder + QStringLiteral("/data.bin"), data);
}

QString missingFromTheBuild() {
    if (!QFileInfo::exists(LauncherBundles::releaseTool()))
        return QStringLiteral("zentho-release is not built");
    if (!QFileInfo::exists(standinGame020()))
        return QStringLiteral("the 0.2.0 stand-in is not built");
    return {};
}

namespace {

Run packLauncherWith(const QString& bundle, const QString& version, const QString& urlBase,
                     const QString& out, const QStringList& options) {
    return run(QStringList{QStringLiteral("pack"), QStringLiteral("--platform"),
                           QStringLiteral("macos-launcher-arm64"), QStringLiteral("--version"),
                           version, QStringLiteral("--executable"), QFileInfo(bundle).fileName(),
                           QStringLiteral("--url-base"), urlBase, QStringLiteral("--out"), out} +
               options + QStringList{bundle});
}

} // namespace

Run packLauncher(const QString& bundle, const QString& version, const QString& urlBase,
                 const QString& out, const QStringList& extra) {
    return packLauncherWith(bundle, version, urlBase, out,
                            QStringList{QStringLiteral("--key"), testSealKey()} + extra);
}

Run packLauncherForPlayers(const QString& bundle, const QString& version, const QString& urlBase,
                           const QString& out) {
    return packLauncherWith(bundle, version, urlBase, out, {});
}

QString standinGame020() {
    return LauncherBundles::buildDir() + QStringLiteral("/standin-0.2.0/zentho");
}

QString launcherBundle020() {
    return LauncherBundles::buildDir() + QStringLiteral("/launcher-0.2.0/ZenthoLauncher.app");
}

QString sealedCopy(const QString& from, const QString& bundle, const QString& key) {
    copyTree(from, bundle);
    const Run sealed = run({QStringLiteral("sign-bundle"), QStringLiteral("--key"),
                            key.isEmpty() ? LauncherBundles::testKey() : key, bundle});
    if (!sealed.ok())
        QTest::qFail(qPrintable(QStringLiteral("sign-bundle failed: ") + QString::fromUtf8(sealed.errors)),
                     __FILE__, __LINE__);
    return bundle;
}

QString seedRuntimeOf(const QString& bundle) {
    return bundle + QStringLiteral("/Contents/Resources/SeedRuntime/zentho");
}

void repackByHand(const QString& manifest, const QString& archive, const QString& bundle,
                  const QString& version) {
    QFile::remove(archive);
    TestArchives::create(archive, QFileInfo(bundle).absolutePath(), {QFileInfo(bundle).fileName()});
    QJsonObject json = QJsonDocument::fromJson(TestFiles::readFile(manifest)).object();
    json[QStringLiteral("sha256")] = TestArchives::sha256sum(archive);
    if (!version.isEmpty())
        json[QStringLiteral("version")] = version;
    TestFiles::writeFile(manifest, QJsonDocument(json).toJson());
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
