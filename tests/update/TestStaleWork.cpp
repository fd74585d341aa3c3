#include "TestFiles.h"

#include "platform/FileManager.h"
#include "update/StaleWork.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

// What a crashed install leaves goes; what an install keeps, or what was put there by hand under
// a similar name, stays.
class TestStaleWork : public QObject {
    Q_OBJECT

private slots:
    void leftoversOfAnInstallAreRemoved() {
        QTemporaryDir dir;
        const QString root = dir.path();
        TestFiles::writeFile(root + QStringLiteral("/staging-A/deep/file"), "x");
        QVERIFY(QFile::setPermissions(root + QStringLiteral("/staging-A/deep"),
                                      QFile::ReadOwner | QFile::ExeOwner));
        TestFiles::writeFile(root + QStringLiteral("/current-macos.json.tmp"), "{}");
        TestFiles::writeFile(root + QStringLiteral("/.current-macos.json.tmp.B"), "{}");
        removeStaleWork(FileManager::defaultManager(), root);
        QCOMPARE(QDir(root).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
                 QStringList());
    }

    void whatAnInstallKeepsStays() {
        QTemporaryDir dir;
        const QString root = dir.path();
        const QStringList kept{QStringLiteral("current-macos.json"), QStringLiteral("launcher-staging-C"),
                               QStringLiteral("launcher-backup-0.1.190-D.app"), QStringLiteral("versions"),
                               QStringLiteral("staging-link"), QStringLiteral("staging-file")};
        TestFiles::writeFile(root + QStringLiteral("/current-macos.json"), "{}");
        TestFiles::writeFile(root + QStringLiteral("/launcher-staging-C/ZenthoLauncher.app/x"), "x");
        TestFiles::writeFile(root + QStringLiteral("/launcher-backup-0.1.190-D.app/x"), "x");
        TestFiles::writeFile(root + QStringLiteral("/versions/0.2.0/zentho"), "x");
        const QString outside = dir.filePath(QStringLiteral("outside"));
        QVERIFY(QDir().mkpath(outside));
        QVERIFY(QFile::link(outside, root + QStringLiteral("/staging-link")));
        TestFiles::writeFile(root + QStringLiteral("/staging-file"), "not a folder");
        removeStaleWork(FileManager::defaultManager(), root);
        QStringList left = QDir(root).entryList(QDir::AllEntries | QDir::Hidden | QDir::System |
                                                QDir::NoDotAndDotDot);
        left.removeAll(QStringLiteral("outside"));
        QStringList expected = kept;
        expected.sort();
        left.sort();
        QCOMPARE(left, expected);
        QVERIFY(QFileInfo(outside).isDir());
    }
};

QTEST_GUILESS_MAIN(TestStaleWork)
#include "TestStaleWork.moc"
