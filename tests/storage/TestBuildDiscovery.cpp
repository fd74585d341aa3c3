#include "ScopedDataHome.h"
#include "TestFiles.h"

#include "platform/FileManager.h"
#include "storage/InstalledBuild.h"
#include "storage/VersionOrder.h"

#include <QMap>
#include <QTest>

namespace {

QStringList versions(const QList<InstalledBuild>& builds) {
    QStringList list;
    for (const auto& b : builds)
        list << b.version;
    return list;
}

} // namespace

class TestBuildDiscovery : public QObject {
    Q_OBJECT

    FileManager& files = FileManager::defaultManager();

    QList<InstalledBuild> scan(const ScopedDataHome& home) {
        return scanInstalledBuilds(files, home.versionsRoot());
    }

private slots:
    void numericOrder_data() {
        QTest::addColumn<QString>("a");
        QTest::addColumn<QString>("b");
        QTest::addColumn<int>("sign");
        QTest::newRow("190 > 99") << "0.1.190" << "0.1.99" << 1;
        QTest::newRow("10 > 9") << "0.10.0" << "0.9.9" << 1;
        QTest::newRow("suffix > prefix") << "1.0-beta" << "1.0" << 1;
        QTest::newRow("prefix < longer") << "1.0" << "1.0.1" << -1;
        QTest::newRow("equal") << "0.2.0" << "0.2.0" << 0;
        QTest::newRow("leading zeros equal value") << "1.05" << "1.5" << 0;
        QTest::newRow("leading zeros then greater") << "1.05" << "1.4" << 1;
        QTest::newRow("case sensitive") << "1.0a" << "1.0B" << 1;
        QTest::newRow("digit before letter") << "1.0" << "1.a" << -1;
        QTest::newRow("huge numbers") << "1.123456789012345678901234567890" << "1.99" << 1;
        QTest::newRow("differ only beyond 64 bits") << "1.18446744073709551617" << "1.18446744073709551616" << 1;
        QTest::newRow("differ only beyond 64 bits, zero-padded")
            << "1.0018446744073709551616" << "1.18446744073709551617" << -1;
        QTest::newRow("equal beyond 64 bits") << "1.36893488147419103232" << "1.036893488147419103232" << 0;
        // Runs that a 64-bit conversion would wrap or clamp into the wrong order or into a tie.
        QTest::newRow("2^64 > 2^64-1") << "1.18446744073709551616" << "1.18446744073709551615" << 1;
        QTest::newRow("2^65 > 2^64") << "1.36893488147419103232" << "1.18446744073709551616" << 1;
        QTest::newRow("non-ASCII by code point") << "1.0é" << "1.0z" << 1;
        QTest::newRow("astral by code point") << "1.0🎮" << "1.0\uffff" << 1;
        QTest::newRow("empty") << "" << "0" << -1;
    }
    void numericOrder() {
        QFETCH(QString, a);
        QFETCH(QString, b);
        QFETCH(int, sign);
        const auto normalise = [](int v) { return v < 0 ? -1 : v > 0 ? 1 : 0; };
        QCOMPARE(normalise(compareVersionsNumerically(a, b)), sign);
        QCOMPARE(normalise(compareVersionsNumerically(b, a)), -sign);
    }

    void buildsAreListedNewestFirst() {
        ScopedDataHome home;
        for (const char* v : {"0.1.9", "0.1.190", "0.1.10"})
            TestFiles::makeBuild(home.versionsRoot() + "/" + v);
        const auto builds = scan(home);
        QCOMPARE(versions(builds), (QStringList{"0.1.190", "0.1.10", "0.1.9"}));
        QCOMPARE(builds.first().path, home.versionsRoot() + "/0.1.190");
        QCOMPARE(builds.first().id(), builds.first().path);
    }

    void missingFolderYieldsNoBuilds() {
        ScopedDataHome home;
        QCOMPARE(scan(home), QList<InstalledBuild>());
    }
    void folderWithoutZenthoIsNotABuild() {
        ScopedDataHome home;
        TestFiles::makeFolder(home.versionsRoot() + "/0.3.0");
        TestFiles::writeFile(home.versionsRoot() + "/0.3.0/game", "", 0755);
        TestFiles::makeBuild(home.versionsRoot() + "/0.2.0");
        QCOMPARE(versions(scan(home)), QStringList{"0.2.0"});
    }
    void nonExecutableZenthoIsNotABuild() {
        ScopedDataHome home;
        TestFiles::writeFile(home.versionsRoot() + "/0.3.0/zentho", "#!/bin/sh\n", 0644);
        TestFiles::makeBuild(home.versionsRoot() + "/0.2.0");
        QCOMPARE(versions(scan(home)), QStringList{"0.2.0"});
    }
    void zenthoThatIsAFolderIsNotABuild() {
        ScopedDataHome home;
        TestFiles::makeFolder(home.versionsRoot() + "/0.3.0/zentho");
        QCOMPARE(scan(home), QList<InstalledBuild>());
    }
    void plainFileNamedLikeAVersionIsNotABuild() {
        ScopedDataHome home;
        TestFiles::writeFile(home.versionsRoot() + "/0.4.0", "", 0755);
        TestFiles::makeBuild(home.versionsRoot() + "/0.2.0");
        QCOMPARE(versions(scan(home)), QStringList{"0.2.0"});
    }
    void hiddenFolderIsNotABuild() {
        ScopedDataHome home;
        TestFiles::makeBuild(home.versionsRoot() + "/.0.3.0");
        TestFiles::makeBuild(home.versionsRoot() + "/0.2.0");
        QCOMPARE(versions(scan(home)), QStringList{"0.2.0"});
    }
    void symlinkToABuildFolderIsNotABuild() {
        ScopedDataHome home;
        TestFiles::makeBuild(home.path() + "/elsewhere");
        TestFiles::makeBuild(home.versionsRoot() + "/0.2.0");
        QVERIFY(QFile::link(home.path() + "/elsewhere", home.versionsRoot() + "/0.5.0"));
        QVERIFY(QFile::link(home.versionsRoot() + "/0.2.0", home.versionsRoot() + "/0.4.0"));
        QVERIFY(QFile::link(home.path() + "/nowhere", home.versionsRoot() + "/0.6.0"));
        QCOMPARE(versions(scan(home)), QStringList{"0.2.0"});
    }
    void theListingDescribesEachEntryItself() {
        ScopedDataHome home;
        TestFiles::makeBuild(home.versionsRoot() + "/0.2.0");
        TestFiles::writeFile(home.versionsRoot() + "/file", "");
        QVERIFY(QFile::link(home.versionsRoot() + "/0.2.0", home.versionsRoot() + "/link"));
        QMap<QString, std::optional<bool>> isDirectory;
        for (const FileManager::Entry& entry : files.contentsOfDirectory(home.versionsRoot()))
            isDirectory.insert(entry.name, entry.isDirectory);
        QCOMPARE(isDirectory.value("0.2.0"), std::optional<bool>(true));
        QCOMPARE(isDirectory.value("file"), std::optional<bool>(false));
        QCOMPARE(isDirectory.value("link"), std::optional<bool>(false));
    }

    // Names whose versions compare equal stay in the order the folder lists them; enough of
    // them that an unstable sort would shuffle some.
    void equalVersionsKeepTheListingOrder() {
        ScopedDataHome home;
        QStringList equal;
        for (int zeros = 0; zeros < 6; ++zeros) {
            for (int lead = 0; lead < 6; ++lead)
                equal << QString(lead, QLatin1Char('0')) + "1." + QString(zeros, QLatin1Char('0')) + "5";
        }
        for (const QString& version : equal)
            TestFiles::makeBuild(home.versionsRoot() + "/" + version);
        for (const char* other : {"2.0", "0.9", "1.4", "1.6"})
            TestFiles::makeBuild(home.versionsRoot() + "/" + other);
        QStringList listed;
        for (const FileManager::Entry& entry : files.contentsOfDirectory(home.versionsRoot()))
            if (equal.contains(entry.name))
                listed << entry.name;
        QCOMPARE(listed.size(), equal.size());
        const QStringList scanned = versions(scan(home));
        QCOMPARE(scanned.first(), QStringLiteral("2.0"));
        QCOMPARE(scanned.mid(1, 1), QStringList{"1.6"});
        QCOMPARE(scanned.mid(2, equal.size()), listed);
        QCOMPARE(scanned.mid(2 + equal.size()), (QStringList{"1.4", "0.9"}));
    }
};

QTEST_GUILESS_MAIN(TestBuildDiscovery)
#include "TestBuildDiscovery.moc"
