#include "TestFiles.h"

#include "platform/FileManager.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <sys/stat.h>

// The checks made on what an archive unpacked: nothing they accept may lead outside the folder
// the archive was unpacked into.
class TestFileManager : public QObject {
    Q_OBJECT

    QTemporaryDir dir_;
    QString staging() const { return dir_.filePath(QStringLiteral("staging")); }
    QString outside() const { return dir_.filePath(QStringLiteral("outside")); }
    const FileManager& files() const { return FileManager::defaultManager(); }

private slots:
    void initTestCase() {
        TestFiles::writeFile(staging() + QStringLiteral("/zentho"), "game", 0600);
        TestFiles::writeFile(staging() + QStringLiteral("/bin/real"), "game", 0600);
        QVERIFY(QFile::link(QStringLiteral("bin/real"), staging() + QStringLiteral("/inner-link")));
        TestFiles::writeFile(outside() + QStringLiteral("/secret"), "x", 0600);
        QVERIFY(QFile::link(outside() + QStringLiteral("/secret"), staging() + QStringLiteral("/outer-link")));
        QVERIFY(QFile::link(QStringLiteral("../outside/secret"), staging() + QStringLiteral("/relative-out")));
        QVERIFY(QFile::link(outside(), staging() + QStringLiteral("/linked-folder")));
        QVERIFY(QDir().mkpath(staging() + QStringLiteral("/Game.app/Contents")));
        QVERIFY(QFile::link(staging() + QStringLiteral("/Game.app"), staging() + QStringLiteral("/Link.app")));
        QCOMPARE(::mkfifo(QFile::encodeName(staging() + QStringLiteral("/fifo")).constData(), 0600), 0);
    }

    void regularFileInside_data() {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("resolved"); // empty: refused
        QTest::newRow("plain file") << "zentho" << "zentho";
        QTest::newRow("link inside") << "inner-link" << "bin/real";
        QTest::newRow("absolute link out") << "outer-link" << "";
        QTest::newRow("relative link out") << "relative-out" << "";
        QTest::newRow("through a linked folder") << "linked-folder/secret" << "";
        QTest::newRow("dot-dot out") << "../outside/secret" << "";
        QTest::newRow("folder") << "Game.app" << "";
        QTest::newRow("fifo") << "fifo" << "";
        QTest::newRow("missing") << "nothing" << "";
        QTest::newRow("device via /dev") << "../../../../../../../dev/null" << "";
    }
    void regularFileInside() {
        QFETCH(QString, name);
        QFETCH(QString, resolved);
        const std::optional<QString> found =
            files().regularFileInside(staging(), staging() + QLatin1Char('/') + name);
        if (resolved.isEmpty())
            QCOMPARE(found, std::nullopt);
        else
            QCOMPARE(found, std::optional<QString>(QDir(staging()).canonicalPath() + QLatin1Char('/') + resolved));
    }

    void realFolderInside() {
        QVERIFY(files().isRealFolderInside(staging(), staging() + QStringLiteral("/Game.app")));
        QVERIFY(!files().isRealFolderInside(staging(), staging() + QStringLiteral("/Link.app")));
        QVERIFY(!files().isRealFolderInside(staging(), staging() + QStringLiteral("/linked-folder")));
        QVERIFY(!files().isRealFolderInside(staging(), staging() + QStringLiteral("/zentho")));
        QVERIFY(!files().isRealFolderInside(staging(), staging()));
        QVERIFY(!files().isRealFolderInside(staging(), staging() + QStringLiteral("/missing.app")));
    }

    // Removal never follows a link, and takes folders that forbid writing and entering too.
    void removalTakesLockedFoldersAndLeavesLinkTargets() {
        const QString tree = dir_.filePath(QStringLiteral("tree"));
        TestFiles::writeFile(tree + QStringLiteral("/locked/inner/file"), "x");
        QVERIFY(QFile::link(outside(), tree + QStringLiteral("/link")));
        QVERIFY(QFile::setPermissions(tree + QStringLiteral("/locked/inner"), QFileDevice::Permissions()));
        QVERIFY(QFile::setPermissions(tree + QStringLiteral("/locked"), QFile::ReadOwner | QFile::ExeOwner));
        files().removeItem(tree);
        QVERIFY(!QFileInfo::exists(tree));
        QVERIFY(QFileInfo::exists(outside() + QStringLiteral("/secret")));
    }
    void removalOfNothingIsAnError() {
        QVERIFY_THROWS_EXCEPTION(std::exception, files().removeItem(dir_.filePath(QStringLiteral("none"))));
    }
};

QTEST_GUILESS_MAIN(TestFileManager)
#include "TestFileManager.moc"
