#include "TestFiles.h"

#include "errors/FileError.h"
#include "storage/ChunkCache.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

namespace {

QString nameOf(char digit) {
    return QString(64, QLatin1Char(digit));
}

} // namespace

// The chunks kept between tries of an update: whole or not at all, bounded, oldest first out.
class TestChunkCache : public QObject {
    Q_OBJECT

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
