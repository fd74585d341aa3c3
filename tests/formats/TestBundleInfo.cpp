// What a launcher bundle says about itself (Contents/Info.json, written by the build), and the
// update that is refused because of it: a bundle that is the running launcher under a new name.

#include "LauncherBundles.h"
#include "LauncherUpdateFixture.h"
#include "RealLauncher.h"
#include "ReleaseTool.h"
#include "TestFiles.h"
#include "TestRequirements.h"
#include "TestServer.h"

#include "formats/BundleInfo.h"
#include "identity/LauncherVersion.h"
#include "process/ChildReaper.h"
#include "update/LauncherUpdater.h"

#include <QTemporaryDir>
#include <QTest>

#include <memory>

class TestBundleInfo : public QObject {
    Q_OBJECT

    QTemporaryDir dir_;
    std::unique_ptr<TestServer> server_;

    QString bundle() const { return dir_.filePath(QStringLiteral("ZenthoLauncher.app")); }
    QString info() const { return bundle() + QStringLiteral("/Contents/Info.json"); }
    // The text of the BundleInfoError that reading the version throws; empty when none is thrown.
    QString readError() const {
        try {
            BundleInfo::version(bundle());
        } catch (const BundleInfoError& error) {
            return QString::fromUtf8(error.what());
        }
        return {};
    }

private slots:
    void init() { TestFiles::makeFolder(bundle() + QStringLiteral("/Contents")); }
    void cleanup() { QDir(bundle()).removeRecursively(); }

    void theVersionIsRead() {
        TestFiles::writeFile(info(), "{\"version\":\"0.2.0\",\"later\":[1]}\n");
        QCOMPARE(BundleInfo::version(bundle()), std::optional<QString>(QStringLiteral("0.2.0")));
    }
    void aBundleWithoutInfoSaysNothing() {
        QVERIFY(!BundleInfo::version(bundle()).has_value());
    }
    void whatTheBuildNeverWritesIsRefused_data() {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<QString>("message");
        QTest::newRow("not json") << QByteArray("0.2.0\n") << "Contents/Info.json does not hold a \"version\" text";
        QTest::newRow("no version") << QByteArray("{\"name\":\"x\"}") << "Contents/Info.json does not hold a \"version\" text";
        QTest::newRow("a number") << QByteArray("{\"version\":2}") << "Contents/Info.json does not hold a \"version\" text";
        QTest::newRow("empty") << QByteArray("{\"version\":\"\"}") << "Contents/Info.json does not hold a \"version\" text";
        QTest::newRow("an array") << QByteArray("[\"0.2.0\"]") << "Contents/Info.json does not hold a \"version\" text";
        QTest::newRow("huge") << "{\"version\":\"0.2.0\",\"pad\":\"" + QByteArray(70000, 'x') + "\"}"
                              << "Contents/Info.json is larger than 64 KiB";
    }
    void whatTheBuildNeverWritesIsRefused() {
        QFETCH(QByteArray, content);
        QFETCH(QString, message);
        TestFiles::writeFile(info(), content);
        QCOMPARE(readError(), message);
    }
    void aFolderInPlaceOfInfoIsRefused() {
        TestFiles::makeFolder(info());
        QCOMPARE(readError(), QStringLiteral("Contents/Info.json cannot be read"));
    }

    void theRunningVersionUnderAnotherNameIsRefused() {
        TestFiles::writeFile(info(), "{\"version\":\"0.1.190\"}\n");
        QVERIFY_THROWS_EXCEPTION(StaleLauncherUpdateError, BundleInfo::refuseRunningVersion(
                                                               bundle(), QStringLiteral("0.1.190"), QStringLiteral("0.2.0")));
        try {
            BundleInfo::refuseRunningVersion(bundle(), QStringLiteral("0.1.190"), QStringLiteral("0.2.0"));
        } catch (const StaleLauncherUpdateError& error) {
            QCOMPARE(QString::fromUtf8(error.what()),
                     QStringLiteral("The launcher update is version 0.1.190, the version already running, "
                                    "although its manifest names 0.2.0."));
        }
        // Its twins pass: another version, or a bundle that does not say.
        BundleInfo::refuseRunningVersion(bundle(), QStringLiteral("0.1.189"), QStringLiteral("0.2.0"));
        QVERIFY(QFile::remove(info()));
        BundleInfo::refuseRunningVersion(bundle(), QStringLiteral("0.1.190"), QStringLiteral("0.2.0"));
    }

    // The real updater refuses such a bundle after its seal checked out, before anything is handed
    // over; the same release with a bundle that is really 0.2.0 is handed over.
    void theUpdaterRefusesTheRunningVersionAndHandsOverTheRealOne() {
        ZENTHO_REQUIRE(nginx);
        TestServer::trustInThisProcess();
        server_ = std::make_unique<TestServer>();
        QCOMPARE(launcherVersion(), QStringLiteral("0.1.190"));
        LauncherUpdateFixture stale(*server_);
        const QUrl manifest = stale.publishBundle(
            stale.makeNewBundle(QStringLiteral("ZenthoLauncher.app"), LauncherUpdateFixture::defaultKey(),
                                QStringLiteral("0.1.190")),
            QStringLiteral("0.2.0"));
        QVERIFY_THROWS_EXCEPTION(StaleLauncherUpdateError, stale.update(manifest));
        QCOMPARE(stale.statuses(), (QStringList{LauncherUpdater::downloadingStatus(), LauncherUpdater::verifyingStatus()}));
        QVERIFY(stale.nothingStarted());

        LauncherUpdateFixture real(*server_);
        QVERIFY(real.update(real.publishBundle(
            real.makeNewBundle(QStringLiteral("ZenthoLauncher.app"), LauncherUpdateFixture::defaultKey(),
                               QStringLiteral("0.2.0")),
            QStringLiteral("0.2.0"))));
        QVERIFY(real.swapDone());
        // The script ends, and is collected, before its folder goes.
        QTRY_COMPARE_WITH_TIMEOUT(ChildReaper::pendingCount(), 0, 60000);
    }

    // The build writes the file from the value it compiles in, inside the seal.
    void theBuiltBundlesSayTheVersionTheyWereBuiltAs() {
        for (const QString& built : {LauncherBundles::builtBundle(), ReleaseTool::launcherBundle020()}) {
            const std::optional<QString> said = BundleInfo::version(built);
            QVERIFY2(said.has_value(), qPrintable(built));
            QCOMPARE(*said, RealLauncher::versionOf(built));
        }
        QCOMPARE(BundleInfo::version(ReleaseTool::launcherBundle020()), std::optional<QString>(QStringLiteral("0.2.0")));
        QVERIFY(TestFiles::readFile(LauncherBundles::builtBundle() + QStringLiteral("/Contents/_CodeSignature/Signature"))
                    .contains(" Contents/Info.json\n"));
    }
};

QTEST_GUILESS_MAIN(TestBundleInfo)
#include "TestBundleInfo.moc"
