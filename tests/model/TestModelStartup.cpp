#include "LauncherModelProbe.h"
#include "RecordingPlatform.h"
#include "ScopedDataHome.h"
#include "TestFiles.h"

#include <QDir>
#include <QSignalSpy>
#include <QTest>

namespace {
const QString kBundleExe = QStringLiteral("/opt/games/ZenthoLauncher.app/Contents/MacOS/ZenthoLauncher");
const QString kSeed = QStringLiteral("/opt/games/ZenthoLauncher.app/Contents/Resources/SeedRuntime");
} // namespace

class TestModelStartup : public QObject {
    Q_OBJECT

private slots:
    void freshModelIsReadyWithTheSeedVersion() {
        ScopedDataHome home;
        RecordingPlatform platform(kBundleExe, {kBundleExe});
        LauncherModel model(platform);
        QCOMPARE(model.status(), QStringLiteral("Ready"));
        QCOMPARE(model.busy(), false);
        QCOMPARE(model.installedVersion(), QStringLiteral("0.1.190"));
        QVERIFY(model.installedBuilds().isEmpty());
        QCOMPARE(model.selectedInstalledPath(), QString());
    }
    void recordedBuildGivesTheInstalledVersion() {
        ScopedDataHome home;
        TestFiles::writeFile(home.statePath(), "{\"version\":\"0.2.0\",\"path\":\"\\/x\"}");
        RecordingPlatform platform(kBundleExe, {kBundleExe});
        LauncherModel model(platform);
        QCOMPARE(model.installedVersion(), QStringLiteral("0.2.0"));
        QCOMPARE(model.status(), QStringLiteral("Ready"));
    }
    void stateWithoutPathIsIgnoredWhole() {
        ScopedDataHome home;
        TestFiles::writeFile(home.statePath(), "{\"version\":\"0.2.0\"}");
        RecordingPlatform platform(kBundleExe, {kBundleExe});
        LauncherModel model(platform);
        QCOMPARE(model.installedVersion(), QStringLiteral("0.1.190"));
        QCOMPARE(LauncherModelProbe::readInstalledState(model),
                 (InstalledState{"0.1.190", kSeed}));
    }
    void notJsonStateReadsAsTheSeed() {
        ScopedDataHome home;
        TestFiles::writeFile(home.statePath(), "garbage");
        RecordingPlatform platform(kBundleExe, {kBundleExe});
        LauncherModel model(platform);
        QCOMPARE(LauncherModelProbe::readInstalledState(model),
                 (InstalledState{"0.1.190", kSeed}));
    }

    void seedRuntimeComesFromTheRunningBundle() {
        ScopedDataHome home;
        RecordingPlatform platform(kBundleExe, {QStringLiteral("/somewhere/else/bin/x")});
        LauncherModel model(platform);
        QCOMPARE(model.seedRuntime(), kSeed);
    }
    void outsideABundleTheCommandLineIsUsed() {
        ScopedDataHome home;
        RecordingPlatform platform(QStringLiteral("/usr/bin/zentho-launcher"),
                                   {QStringLiteral("/somewhere/X.app/Contents/MacOS/ZenthoLauncher")});
        QCOMPARE(platform.bundleResourceFolder(), std::nullopt);
        LauncherModel model(platform);
        QCOMPARE(model.seedRuntime(), QStringLiteral("/somewhere/X.app/Contents/Resources/SeedRuntime"));
    }
    void relativeCommandLineResolvesAgainstTheWorkingFolder() {
        ScopedDataHome home;
        RecordingPlatform platform(QStringLiteral("/usr/bin/zentho-launcher"),
                                   {QStringLiteral("Contents/MacOS/ZenthoLauncher")});
        LauncherModel model(platform);
        QCOMPARE(model.seedRuntime(), QDir::currentPath() + "/Contents/Resources/SeedRuntime");
    }
    void folderNamedMacosOutsideAppIsNoBundle() {
        RecordingPlatform platform(QStringLiteral("/opt/Contents/MacOS/ZenthoLauncher"), {"x"});
        QCOMPARE(platform.bundleResourceFolder(), std::nullopt);
        QCOMPARE(platform.bundlePath(), QStringLiteral("/opt/Contents/MacOS"));
        RecordingPlatform bundled(kBundleExe, {"x"});
        QCOMPARE(bundled.bundlePath(), QStringLiteral("/opt/games/ZenthoLauncher.app"));
    }

    void newestSavedBuildIsSelected() {
        ScopedDataHome home;
        TestFiles::makeBuild(home.versionsRoot() + "/0.1.190");
        TestFiles::makeBuild(home.versionsRoot() + "/0.2.0");
        RecordingPlatform platform(kBundleExe, {kBundleExe});
        LauncherModel model(platform);
        QCOMPARE(model.installedBuilds().size(), 2);
        QCOMPARE(model.selectedInstalledPath(), home.versionsRoot() + "/0.2.0");
        // The window reads the same builds through the list model's roles.
        const InstalledBuildList* list = model.installedBuildList();
        QCOMPARE(list->rowCount(), 2);
        QCOMPARE(list->data(list->index(0), InstalledBuildList::VersionRole).toString(),
                 QStringLiteral("0.2.0"));
        QCOMPARE(list->data(list->index(0), InstalledBuildList::PathRole).toString(),
                 home.versionsRoot() + "/0.2.0");
    }

    void startupCreatesNothingOnDisk() {
        ScopedDataHome home;
        RecordingPlatform platform(kBundleExe, {kBundleExe});
        LauncherModel model(platform);
        QCOMPARE(LauncherModelProbe::launcherRoot(model), home.launcherRoot());
        QCOMPARE(LauncherModelProbe::stateURL(model), home.statePath());
        QCOMPARE(QDir(home.path()).entryList(QDir::NoDotAndDotDot | QDir::AllEntries),
                 QStringList());
    }

    void refreshKeepsAStillListedSelectionAndNotifies() {
        ScopedDataHome home;
        TestFiles::makeBuild(home.versionsRoot() + "/0.1.190");
        TestFiles::makeBuild(home.versionsRoot() + "/0.2.0");
        RecordingPlatform platform(kBundleExe, {kBundleExe});
        LauncherModel model(platform);
        model.setSelectedInstalledPath(home.versionsRoot() + "/0.1.190");
        QSignalSpy selection(&model, &LauncherModel::selectedInstalledPathChanged);
        LauncherModelProbe::refreshInstalledBuilds(model);
        QCOMPARE(model.selectedInstalledPath(), home.versionsRoot() + "/0.1.190");
        QCOMPARE(selection.count(), 1);
    }
    void refreshMovesALostSelectionToTheNewest() {
        ScopedDataHome home;
        TestFiles::makeBuild(home.versionsRoot() + "/0.1.190");
        TestFiles::makeBuild(home.versionsRoot() + "/0.2.0");
        TestFiles::makeBuild(home.versionsRoot() + "/0.3.0");
        RecordingPlatform platform(kBundleExe, {kBundleExe});
        LauncherModel model(platform);
        model.setSelectedInstalledPath(home.versionsRoot() + "/0.1.190");
        QVERIFY(QDir(home.versionsRoot() + "/0.1.190").removeRecursively());
        QSignalSpy builds(&model, &LauncherModel::installedBuildsChanged);
        LauncherModelProbe::refreshInstalledBuilds(model);
        QCOMPARE(builds.count(), 1);
        QCOMPARE(model.selectedInstalledPath(), home.versionsRoot() + "/0.3.0");
    }
    void refreshWithNoBuildsLeftClearsTheSelection() {
        ScopedDataHome home;
        TestFiles::makeBuild(home.versionsRoot() + "/0.2.0");
        RecordingPlatform platform(kBundleExe, {kBundleExe});
        LauncherModel model(platform);
        QCOMPARE(model.selectedInstalledPath(), home.versionsRoot() + "/0.2.0");
        QVERIFY(QDir(home.versionsRoot()).removeRecursively());
        LauncherModelProbe::refreshInstalledBuilds(model);
        QVERIFY(model.installedBuilds().isEmpty());
        QCOMPARE(model.selectedInstalledPath(), QString());
    }

    void propertiesNotifyOnlyOnChange() {
        ScopedDataHome home;
        RecordingPlatform platform(kBundleExe, {kBundleExe});
        LauncherModel model(platform);
        QSignalSpy status(&model, &LauncherModel::statusChanged);
        QSignalSpy busy(&model, &LauncherModel::busyChanged);
        LauncherModelProbe::setStatus(model, "Ready");
        LauncherModelProbe::setBusy(model, false);
        QCOMPARE(status.count(), 0);
        QCOMPARE(busy.count(), 0);
        LauncherModelProbe::setStatus(model, "Checking for updates...");
        LauncherModelProbe::setBusy(model, true);
        QCOMPARE(status.count(), 1);
        QCOMPARE(busy.count(), 1);
        QCOMPARE(model.property("status").toString(), QStringLiteral("Checking for updates..."));
        QCOMPARE(model.property("busy").toBool(), true);
    }
};

QTEST_MAIN(TestModelStartup)
#include "TestModelStartup.moc"
