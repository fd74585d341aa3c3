#include "TestFiles.h"

#include "errors/FileError.h"
#include "storage/ChunkCache.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QRegularExpression>
#include <QTest>

#include <atomic>
#include <thread>

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

    // A build lets chunks go on its writing thread while the network's keeps more on the main
    // one: every chunk kept is there whole until released, and every released file is written
    // over or left as a spare, never lost or taken twice.
    void chunksReleasedOnAnotherThreadWhileOthersAreKept() {
        QTemporaryDir root;
        const ChunkCache cache(root.path());
        const auto nameAt = [](int i) { return QStringLiteral("%1").arg(i, 64, 16, QLatin1Char('0')); };
        const int count = 600;
        std::atomic<int> kept{0}; // as a build does, a chunk is let go only after it was kept
        for (; kept < 50; ++kept)
            cache.keep(nameAt(kept), QByteArray::number(kept.load()));
        std::thread releasing([&] {
            for (int i = 0; i < count - 50; ++i) {
                while (kept.load() <= i)
                    std::this_thread::yield();
                cache.release(nameAt(i));
            }
        });
        for (; kept < count; ++kept)
            cache.keep(nameAt(kept), QByteArray::number(kept.load()));
        releasing.join();
        for (int i = 0; i < count; ++i) {
            if (i < count - 50)
                QVERIFY(!QFileInfo::exists(cache.pathOf(nameAt(i))));
            else
                QCOMPARE(TestFiles::readFile(cache.pathOf(nameAt(i))), QByteArray::number(i));
        }
        // Live chunks and spares together: never more files than were ever live at once.
        const QStringList left = QDir(cache.path()).entryList(QDir::Files | QDir::Hidden);
        QVERIFY2(left.size() <= count, qPrintable(QString::number(left.size())));
        QCOMPARE(left.filter(QRegularExpression(QStringLiteral("^[0-9a-f]{64}$"))).size(), 50);
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
