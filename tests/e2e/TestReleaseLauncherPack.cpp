// Launcher releases made with zentho-release as a release engineer would: pack and verify refuse
// a bundle whose seal does not verify against the keys the launcher trusts, and one that is not
// the version the release names, before anything is written.

#include "LauncherBundles.h"
#include "RealLauncher.h"
#include "ReleaseTool.h"
#include "TestArchives.h"
#include "TestFiles.h"

#include "formats/ReleaseManifest.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

using ReleaseTool::Run;

namespace {

const QString kBase = QStringLiteral("https://h.invalid/release");

QString launcherArchive(const QString& out, const QString& version) {
    return out + QStringLiteral("/zentho-%1-macos-launcher-arm64.tar.gz").arg(version);
}

QString launcherManifest(const QString& out) {
    return out + QStringLiteral("/macos-launcher-arm64-manifest.json");
}

} // namespace

class TestReleaseLauncherPack : public QObject {
    Q_OBJECT

    QTemporaryDir* tmp_ = nullptr;

    QString path(const QString& relative) const { return tmp_->filePath(relative); }
    QString out() const { return path(QStringLiteral("out")); }

    // A copy of a launcher bundle in its own folder, sealed with the test key.
    QString sealedCopy(const QString& from, const QString& folder = QStringLiteral("src")) {
        TestFiles::makeFolder(path(folder));
        return ReleaseTool::sealedCopy(from, path(folder + QStringLiteral("/ZenthoLauncher.app")));
    }
    Run verify(const QString& version, const QStringList& keys = {ReleaseTool::testSealKey()}) {
        QStringList arguments{QStringLiteral("verify")};
        for (const QString& key : keys)
            arguments << QStringLiteral("--key") << key;
        return ReleaseTool::run(arguments + QStringList{launcherManifest(out()), launcherArchive(out(), version)});
    }
    // A refusal with its exact one line, nothing written into the output folder.
    void expectPackRefused(const Run& packed, const QByteArray& message) {
        QCOMPARE(packed.exitCode, 1);
        QCOMPARE(packed.errors, "zentho-release pack: " + message + '\n');
        QVERIFY(!QFileInfo::exists(out()) || QDir(out()).isEmpty());
    }
    void repackByHand(const QString& bundle, const QString& archiveVersion, const QString& manifestVersion) {
        ReleaseTool::repackByHand(launcherManifest(out()), launcherArchive(out(), archiveVersion), bundle,
                                  manifestVersion);
    }

private slots:
    void initTestCase() {
        QVERIFY2(QFileInfo::exists(LauncherBundles::releaseTool()), "zentho-release is not built");
        QCOMPARE(RealLauncher::versionOf(LauncherBundles::builtBundle()), QStringLiteral("0.1.190"));
        QCOMPARE(RealLauncher::versionOf(ReleaseTool::launcherBundle020()), QStringLiteral("0.2.0"));
    }
    void init() { tmp_ = new QTemporaryDir; }
    void cleanup() { delete tmp_; }

    void aBundleIsPackedAsTheArchivesOneTopLevelFolder() {
        const QString bundle = sealedCopy(ReleaseTool::launcherBundle020());
        const Run packed = ReleaseTool::packLauncher(bundle, QStringLiteral("0.2.0"), kBase, out());
        QVERIFY2(packed.ok(), packed.errors.constData());
        const QString archive = launcherArchive(out(), QStringLiteral("0.2.0"));
        QCOMPARE(packed.line(QStringLiteral("archive")), archive);
        QCOMPARE(packed.line(QStringLiteral("size")).toLongLong(), QFileInfo(archive).size());
        QCOMPARE(packed.line(QStringLiteral("sha256")), TestArchives::sha256sum(archive));
        const ReleaseManifest manifest = ReleaseManifest::decode(TestFiles::readFile(packed.line(QStringLiteral("manifest"))));
        QCOMPARE(manifest.platform, QStringLiteral("macos-launcher-arm64"));
        QCOMPARE(manifest.executable, QStringLiteral("ZenthoLauncher.app"));
        for (const QByteArray& entry : TestArchives::tar({QStringLiteral("-tzf"), archive}).split('\n'))
            QVERIFY2(entry.isEmpty() || entry.startsWith("ZenthoLauncher.app/"), entry.constData());

        const Run checked = verify(QStringLiteral("0.2.0"));
        QVERIFY2(checked.ok(), checked.errors.constData());
        QCOMPARE(checked.output, QByteArray("ok: macos-launcher-arm64 0.2.0: digest, listing, executable, seal, libraries, version checked\n"));
        // The launchers this build makes trust the build's own key, not the test key.
        const Run builtIn = verify(QStringLiteral("0.2.0"), {});
        QCOMPARE(builtIn.exitCode, 1);
        QCOMPARE(builtIn.errors, QByteArray("zentho-release verify: seal: Contents/_CodeSignature/Signature: "
                                            "not signed by a trusted key\n"));
    }

    // The seal is checked against the keys the launcher of this build trusts unless --key names
    // others: the bundle the build sealed itself passes, one sealed with the test key does not.
    void packChecksTheSealAgainstTheKeysTheLauncherTrusts() {
        TestFiles::makeFolder(path(QStringLiteral("built")));
        const QString built = path(QStringLiteral("built/ZenthoLauncher.app"));
        ReleaseTool::copyTree(LauncherBundles::builtBundle(), built);
        const QStringList pack{QStringLiteral("pack"), QStringLiteral("--platform"), QStringLiteral("macos-launcher-arm64"),
                               QStringLiteral("--version"), QStringLiteral("0.1.190"), QStringLiteral("--executable"),
                               QStringLiteral("ZenthoLauncher.app"), QStringLiteral("--url-base"), kBase,
                               QStringLiteral("--out"), out()};
        const Run buildSealed = ReleaseTool::run(pack + QStringList{built});
        QVERIFY2(buildSealed.ok(), buildSealed.errors.constData());
        QVERIFY(verify(QStringLiteral("0.1.190"), {}).ok());

        QVERIFY(QDir(out()).removeRecursively());
        expectPackRefused(ReleaseTool::run(pack + QStringList{sealedCopy(LauncherBundles::builtBundle())}),
                          "seal: Contents/_CodeSignature/Signature: not signed by a trusted key");
    }

    // The mistake that made every launcher update itself on every start: a 0.1.190 bundle
    // published as 0.2.0.
    void aBundleOfAnotherVersionIsRefused() {
        const QString bundle = sealedCopy(LauncherBundles::builtBundle());
        expectPackRefused(ReleaseTool::packLauncher(bundle, QStringLiteral("0.2.0"), kBase, out()),
                          "version: the bundle is 0.1.190 (Contents/Info.json), not the 0.2.0 that --version names");

        // Packed right and edited by hand afterwards, verify catches it.
        QVERIFY(ReleaseTool::packLauncher(bundle, QStringLiteral("0.1.190"), kBase, out()).ok());
        repackByHand(bundle, QStringLiteral("0.1.190"), QStringLiteral("0.2.0"));
        const Run checked = verify(QStringLiteral("0.1.190"));
        QCOMPARE(checked.exitCode, 1);
        QVERIFY2(checked.errors.endsWith("zentho-release verify: version: the bundle is 0.1.190 (Contents/Info.json), "
                                         "not the 0.2.0 that the manifest names\n"),
                 checked.errors.constData());
    }
    void aBundleThatDoesNotSayItsVersionIsRefused() {
        const QString bundle = sealedCopy(ReleaseTool::launcherBundle020());
        QVERIFY(QFile::remove(bundle + QStringLiteral("/Contents/Info.json")));
        QVERIFY(LauncherBundles::seal(bundle, LauncherBundles::testKey()));
        expectPackRefused(ReleaseTool::packLauncher(bundle, QStringLiteral("0.2.0"), kBase, out()),
                          "version: the bundle does not say its version (Contents/Info.json is missing); "
                          "build it with this project's CMake");
    }

    void aBundleChangedAfterItsSealIsRefusedNamingTheFile() {
        const QString bundle = sealedCopy(ReleaseTool::launcherBundle020());
        ReleaseTool::flipOneByte(ReleaseTool::seedRuntimeOf(bundle));
        expectPackRefused(ReleaseTool::packLauncher(bundle, QStringLiteral("0.2.0"), kBase, out()),
                          "seal: Contents/Resources/SeedRuntime/zentho: content changed");

        // Put together by hand, the release fails verify the same way.
        const QString good = sealedCopy(ReleaseTool::launcherBundle020(), QStringLiteral("good"));
        QVERIFY(ReleaseTool::packLauncher(good, QStringLiteral("0.2.0"), kBase, out()).ok());
        repackByHand(bundle, QStringLiteral("0.2.0"), QStringLiteral("0.2.0"));
        const Run checked = verify(QStringLiteral("0.2.0"));
        QCOMPARE(checked.exitCode, 1);
        QCOMPARE(checked.errors, QByteArray("zentho-release verify: seal: Contents/Resources/SeedRuntime/zentho: content changed\n"));
    }

    void anUnsealedOrMisnamedBundleIsRefused() {
        TestFiles::makeFolder(path(QStringLiteral("src")));
        const QString bundle = path(QStringLiteral("src/ZenthoLauncher.app"));
        ReleaseTool::copyTree(ReleaseTool::launcherBundle020(), bundle);
        expectPackRefused(ReleaseTool::packLauncher(bundle, QStringLiteral("0.2.0"), kBase, out()),
                          "seal: ZenthoLauncher.app: not signed (Contents/_CodeSignature/Signature is missing)");

        const Run misnamed = ReleaseTool::run({QStringLiteral("pack"), QStringLiteral("--platform"), QStringLiteral("macos-launcher-arm64"),
                                               QStringLiteral("--version"), QStringLiteral("0.2.0"), QStringLiteral("--executable"),
                                               QStringLiteral("Other.app"), QStringLiteral("--url-base"), kBase,
                                               QStringLiteral("--out"), out(), bundle});
        QCOMPARE(misnamed.exitCode, 2);
        QCOMPARE(misnamed.errors, QByteArray("zentho-release pack: --executable must be the bundle's folder name "
                                             "\"ZenthoLauncher.app\", not \"Other.app\" (see --help)\n"));

        QVERIFY(LauncherBundles::seal(bundle, LauncherBundles::testKey()));
        QVERIFY(QFile::remove(RealLauncher::executableOf(bundle)));
        expectPackRefused(ReleaseTool::packLauncher(bundle, QStringLiteral("0.2.0"), kBase, out()),
                          "executable: the bundle has no executable Contents/MacOS/ZenthoLauncher");
    }
};

QTEST_MAIN(TestReleaseLauncherPack)
#include "TestReleaseLauncherPack.moc"
