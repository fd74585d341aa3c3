// The saved builds as the window reads them: a list model whose rows follow the model's builds.

#include "RecordingPlatform.h"
#include "ScopedDataHome.h"
#include "TestFiles.h"
#include "LauncherModelProbe.h"
#include "WindowFixture.h"

#include "model/InstalledBuildList.h"

#include <QAbstractItemModelTester>
#include <QQuickItem>
#include <QSignalSpy>
#include <QTest>

namespace {

const QList<InstalledBuild> kTwo{{QStringLiteral("0.2.0"), QStringLiteral("/v/0.2.0")},
                                 {QStringLiteral("0.1.190"), QStringLiteral("/v/0.1.190")}};

QString version(const InstalledBuildList& list, int row) {
    return list.data(list.index(row), InstalledBuildList::VersionRole).toString();
}
QString path(const InstalledBuildList& list, int row) {
    return list.data(list.index(row), InstalledBuildList::PathRole).toString();
}

} // namespace

class TestInstalledBuildList : public QObject {
    Q_OBJECT

private slots:
    void rowsHoldVersionAndPath() {
        InstalledBuildList list;
        QAbstractItemModelTester tester(&list, QAbstractItemModelTester::FailureReportingMode::QtTest);
        QCOMPARE(list.rowCount(), 0);
        list.setBuilds(kTwo);
        QCOMPARE(list.rowCount(), 2);
        QCOMPARE(list.count(), 2);
        QCOMPARE(version(list, 0), QStringLiteral("0.2.0"));
        QCOMPARE(path(list, 0), QStringLiteral("/v/0.2.0"));
        QCOMPARE(version(list, 1), QStringLiteral("0.1.190"));
        QCOMPARE(path(list, 1), QStringLiteral("/v/0.1.190"));
        QCOMPARE(list.builds(), kTwo);
        QCOMPARE(list.roleNames().value(InstalledBuildList::VersionRole), QByteArray("version"));
        QCOMPARE(list.roleNames().value(InstalledBuildList::PathRole), QByteArray("path"));
    }

    void outsideTheRowsThereIsNothing() {
        InstalledBuildList list;
        list.setBuilds(kTwo);
        QVERIFY(!list.data(list.index(2), InstalledBuildList::VersionRole).isValid());
        QVERIFY(!list.data(QModelIndex(), InstalledBuildList::PathRole).isValid());
        QVERIFY(!list.data(list.index(0), Qt::UserRole + 50).isValid());
        QCOMPARE(list.rowCount(list.index(0)), 0); // a flat list: rows have no children
    }

    void replacingTheBuildsResetsTheViewOnce() {
        InstalledBuildList list;
        list.setBuilds(kTwo);
        QSignalSpy reset(&list, &QAbstractItemModel::modelReset);
        QSignalSpy count(&list, &InstalledBuildList::countChanged);
        list.setBuilds({kTwo.first()});
        QCOMPARE(reset.count(), 1);
        QCOMPARE(count.count(), 1);
        QCOMPARE(list.rowCount(), 1);
        // The same number of rows: the view is reset, the count stays.
        list.setBuilds({kTwo.last()});
        QCOMPARE(reset.count(), 2);
        QCOMPARE(count.count(), 1);
        QCOMPARE(version(list, 0), QStringLiteral("0.1.190"));
    }

    void theModelPublishesItsRescans() {
        ScopedDataHome home;
        TestFiles::makeBuild(home.versionsRoot() + QStringLiteral("/0.2.0"));
        RecordingPlatform platform(WindowFixture::kBundleExe, {WindowFixture::kBundleExe});
        LauncherModel model(platform);
        InstalledBuildList* list = model.installedBuildList();
        QCOMPARE(model.property("installedBuilds").value<QObject*>(), list);
        QCOMPARE(list->rowCount(), 1);
        TestFiles::makeBuild(home.versionsRoot() + QStringLiteral("/0.10.0"));
        LauncherModelProbe::refreshInstalledBuilds(model);
        QCOMPARE(list->rowCount(), 2);
        QCOMPARE(version(*list, 0), QStringLiteral("0.10.0"));
        QCOMPARE(list->builds(), model.installedBuilds());
    }

    void thePickerListsAThousandBuildsNewestFirst() {
        QStringList versions;
        for (int i = 0; i < 1000; ++i)
            versions << QStringLiteral("1.%1.0").arg(i);
        WindowFixture f(versions);
        QQuickItem* picker = f.item("versionPicker");
        QCOMPARE(picker->property("count").toInt(), 1000);
        QCOMPARE(picker->property("displayText").toString(), QStringLiteral("1.999.0"));
        QCOMPARE(picker->property("currentIndex").toInt(), 0);
        f.model->setSelectedInstalledPath(f.home.versionsRoot() + QStringLiteral("/1.0.0"));
        QCOMPARE(picker->property("currentIndex").toInt(), 999);
        QCOMPARE(picker->property("displayText").toString(), QStringLiteral("1.0.0"));
    }
};

QTEST_MAIN(TestInstalledBuildList)
#include "TestInstalledBuildList.moc"
