// publish checks a launcher release's seal with the keys the launcher already published trusts,
// as its bundle states them, since those are the keys players' launchers check it with: a bundle
// sealed with a key they do not trust would be refused on every start, and downloaded again each
// time.

#include "LauncherBundles.h"
#include "LauncherTestScope.h"
#include "ReleaseTool.h"
#include "TestFiles.h"

#include <QFile>
#include <QTest>

#include <optional>

using ReleaseTool::Run;

namespace {

const QString kBase = QStringLiteral("https://h.invalid/release");

QString testKeyNext() {
    return LauncherBundles::buildDir() + QStringLiteral("/signing/test-next.key");
}

} // namespace

class TestReleaseSealKeys : public QObject {
    Q_OBJECT

    std::optional<LauncherTestScope> scope_;

    QString path(const QString& relative) const { return scope_->path(relative); }
    QString www() const { return path(QStringLiteral("www")); }
    QByteArray publishedManifest() const {
        return TestFiles::readFile(www() + QStringLiteral("/release/macos-launcher-arm64-manifest.json"));
    }

    // The 0.2.0 bundle as launcher `version`, stating that it trusts the public keys `trusted`,
    // sealed with `sealKey` and packed into dist-<version>; returns the manifest.
    QString launcherRelease(const QString& version, const QStringList& trusted, const QString& sealKey) {
        TestFiles::makeFolder(path(QStringLiteral("draft-") + version));
        TestFiles::makeFolder(path(QStringLiteral("src-") + version));
        const QString draft = path(QStringLiteral("draft-") + version + QStringLiteral("/ZenthoLauncher.app"));
        ReleaseTool::copyTree(ReleaseTool::launcherBundle020(), draft);
        TestFiles::writeFile(draft + QStringLiteral("/Contents/Info.json"), "{\"version\":\"" + version.toUtf8() + "\"}");
        QByteArray pem;
        for (const QString& key : trusted)
            pem += TestFiles::readFile(key);
        TestFiles::writeFile(draft + QStringLiteral("/Contents/Resources/trusted-seal-keys.pem"), pem);
        const QString bundle = ReleaseTool::sealedCopy(
            draft, path(QStringLiteral("src-") + version + QStringLiteral("/ZenthoLauncher.app")), sealKey);
        const Run packed = ReleaseTool::packLauncher(bundle, version, kBase, path(QStringLiteral("dist-") + version),
                                                     {QStringLiteral("--key"), ReleaseTool::testSealKeyNext()});
        if (!packed.ok())
            qWarning("pack: %s", packed.errors.constData());
        return packed.line(QStringLiteral("manifest"));
    }
    Run publish(const QString& manifest, const QStringList& extra = {}) {
        return ReleaseTool::run(QStringList{QStringLiteral("publish"), QStringLiteral("--to"), www()} + extra +
                                QStringList{manifest});
    }
    // 0.2.0, trusting `trusted` and sealed with the test key, published as players' launcher.
    void publishFirstLauncher(const QStringList& trusted) {
        const Run first = publish(launcherRelease(QStringLiteral("0.2.0"), trusted, LauncherBundles::testKey()),
                                  {QStringLiteral("--key"), ReleaseTool::testSealKey()});
        QVERIFY2(first.ok(), first.errors.constData());
    }

private slots:
    void init() { scope_.emplace(); }
    void cleanup() { scope_.reset(); }

    void aSealThePublishedLauncherDoesNotTrustIsRefused() {
        publishFirstLauncher({ReleaseTool::testSealKey()});
        const QByteArray before = publishedManifest();
        const QString next = launcherRelease(QStringLiteral("0.3.0"),
                                             {ReleaseTool::testSealKey(), ReleaseTool::testSealKeyNext()}, testKeyNext());

        const Run refused = publish(next);
        QCOMPARE(refused.exitCode, 1);
        QVERIFY2(refused.failedWithOneLine(), refused.errors.constData());
        QVERIFY2(refused.errors.startsWith("zentho-release publish: seal: "), refused.errors.constData());
        QVERIFY2(refused.errors.endsWith(" (checked with the keys the published launcher trusts: launchers would refuse "
                                         "it; seal it with one of them, or give --key to check with others)\n"),
                 refused.errors.constData());
        QCOMPARE(publishedManifest(), before);

        // --key is the publisher's override, checked with the keys it names.
        const Run overridden = publish(next, {QStringLiteral("--key"), ReleaseTool::testSealKeyNext()});
        QVERIFY2(overridden.ok(), overridden.errors.constData());
        QCOMPARE(publishedManifest(), TestFiles::readFile(next));
    }

    // The twin: a rotation done right. The published launcher already trusts the next key, so a
    // bundle sealed with it goes out, checked with the published launcher's keys alone.
    void aSealThePublishedLauncherTrustsGoesOut() {
        publishFirstLauncher({ReleaseTool::testSealKey(), ReleaseTool::testSealKeyNext()});
        const QString next = launcherRelease(QStringLiteral("0.3.0"), {ReleaseTool::testSealKeyNext()}, testKeyNext());
        const Run published = publish(next);
        QVERIFY2(published.ok(), published.errors.constData());
        QCOMPARE(publishedManifest(), TestFiles::readFile(next));
    }
};

QTEST_MAIN(TestReleaseSealKeys)
#include "TestReleaseSealKeys.moc"
