#include "TestFiles.h"

#include "errors/FileError.h"
#include "storage/ChunkCache.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <sys/stat.h>

namespace {

QString nameOf(char digit) {
    return QString(64, QLatin1Char(digit));
}

} // namespace

// The chunks kept between tries of an update: whole or not at all, bounded, oldest first out.
class TestChunkCache : public QObject {
    Q_OBJECT

    static ino_t inodeOf(const QString& path) {
        struct stat info {};
        return ::stat(QFile::encodeName(path).constData(), &info) == 0 ? info.st_ino : 0;
    }

    static void age(const QString& path, int secondsAgo) {
        QFile file(path);
        QVERIFY(file.open(QIODevice::ReadWrite));
        QVERIFY(file.setFileTime(QDateTime::currentDateTime().addSecs(-secondsAgo), QFileDevice::FileModificationTime));
    }

private slots:
    void keptChunkIsHeld() {
        QTemporaryDir root;
        const ChunkCache cache(root.path());
        QVERIFY(!cache.holds(nameOf('a'), 3));
        cache.keep(nameOf('a'), "abc");
        QVERIFY(cache.holds(nameOf('a'), 3));
        QVERIFY(!cache.holds(nameOf('a'), 4)); // the twin: another size is not this chunk
        QCOMPARE(TestFiles::readFile(root.filePath(QStringLiteral("chunks/")) + nameOf('a')), QByteArray("abc"));
        QCOMPARE(QDir(cache.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
                 QStringList{nameOf('a')});
    }

    // A released chunk is gone at once, and the next chunk kept is written into its file (the
    // same inode): no file is made for it.
    void aReleasedChunksFileTakesTheNextChunk() {
        QTemporaryDir root;
        const ChunkCache cache(root.path());
        cache.keep(nameOf('a'), "first chunk");
        const ino_t first = inodeOf(cache.pathOf(nameOf('a')));
        cache.release(nameOf('a'));
        QVERIFY(!cache.holds(nameOf('a'), 11));
        QCOMPARE(QFileInfo(cache.pathOf(nameOf('a'))).exists(), false);
        cache.keep(nameOf('b'), "xy");
        QCOMPARE(inodeOf(cache.pathOf(nameOf('b'))), first);
        QCOMPARE(TestFiles::readFile(cache.pathOf(nameOf('b'))), QByteArray("xy"));
        QCOMPARE(QDir(cache.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
                 QStringList{nameOf('b')});
        // The twin: with nothing released, a chunk gets a file of its own.
        cache.keep(nameOf('c'), "z");
        QVERIFY(inodeOf(cache.pathOf(nameOf('c'))) != first);
    }

    // A released file nobody took (a build that ended, a kill) is no chunk: the next trim removes it.
    void anUnusedReleasedFileGoesWithTheNextTrim() {
        QTemporaryDir root;
        const ChunkCache cache(root.path());
        cache.keep(nameOf('a'), "abc");
        cache.release(nameOf('a'));
        QCOMPARE(QDir(cache.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot).size(), 1);
        ChunkCache(root.path()).trimTo(1 << 20);
        QCOMPARE(QDir(cache.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot), QStringList());
    }

    // A name that is not a digest could be a path: never written.
    void nameThatIsNotADigestIsRefused() {
        QTemporaryDir root;
        const ChunkCache cache(root.path());
        QVERIFY_THROWS_EXCEPTION(FileError, cache.keep(QStringLiteral("../escape"), "x"));
        QVERIFY(!QFileInfo::exists(root.filePath(QStringLiteral("escape"))));
        QVERIFY(!cache.holds(QStringLiteral("../escape"), 1));
    }

    void trimRemovesTheOldestFirst() {
        QTemporaryDir root;
        const ChunkCache cache(root.path());
        cache.keep(nameOf('a'), QByteArray(100, 'a'));
        cache.keep(nameOf('b'), QByteArray(100, 'b'));
        cache.keep(nameOf('c'), QByteArray(100, 'c'));
        age(cache.pathOf(nameOf('b')), 300);
        age(cache.pathOf(nameOf('a')), 200);
        age(cache.pathOf(nameOf('c')), 100);
        TestFiles::writeFile(cache.path() + QStringLiteral("/.") + nameOf('d') + QStringLiteral(".part"), "half");
        TestFiles::writeFile(cache.path() + QStringLiteral("/stray"), "not ours");
        cache.trimTo(250);
        QCOMPARE(QDir(cache.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Name),
                 (QStringList{nameOf('a'), nameOf('c')}));
        cache.trimTo(1000); // the twin: below the cap nothing goes
        QCOMPARE(QDir(cache.path()).count(), 4u); // ".", ".." and the two
        cache.clear();
        QVERIFY(!QFileInfo::exists(cache.path()));
    }
};

QTEST_GUILESS_MAIN(TestChunkCache)
#include "TestChunkCache.moc"
