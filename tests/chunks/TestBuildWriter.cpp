#include "TestArchives.h"
#include "TestFiles.h"
#include "TreeSnapshot.h"

#include "chunks/BuildWriter.h"
#include "errors/Failure.h"
#include "formats/TreeChunker.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <fcntl.h>
#include <sys/stat.h>

namespace {

constexpr ChunkSizes kSmall{64, 256, 1024};
constexpr qint64 kReleaseTime = 1600000000;

bool setModified(const QString& path, qint64 seconds) {
    const struct timespec times[2] = {{time_t(seconds), 0}, {time_t(seconds), 0}};
    return ::utimensat(AT_FDCWD, QFile::encodeName(path).constData(), times, AT_SYMLINK_NOFOLLOW) == 0;
}

qint64 modifiedAt(const QString& path) {
    struct stat info {};
    return ::lstat(QFile::encodeName(path).constData(), &info) == 0 ? qint64(info.st_mtim.tv_sec) : -1;
}

QByteArray pattern(int size, int seed) {
    QByteArray bytes(size, '\0');
    for (int i = 0; i < size; ++i)
        bytes[i] = char((i * 131 + i / 97 + seed * 7) & 0xff);
    return bytes;
}

} // namespace

// A build written from its chunks: the same tree as the one it was cut from, and nothing accepted
// that differs from the index.
class TestBuildWriter : public QObject {
    Q_OBJECT

    QTemporaryDir dir_;
    QString source_;
    QString archive_;
    ChunkIndex index_;
    QHash<QString, ChunkLocation> locations_;
    int staged_ = 0;

    QString freshStaging() {
        const QString staging = dir_.filePath(QStringLiteral("staging-%1").arg(++staged_));
        TestFiles::makeFolder(staging);
        return staging;
    }

    // The outcome of assembling `index` from `locations`: "ok" or the error's text.
    QString assemble(const ChunkIndex& index, const QHash<QString, ChunkLocation>& locations, QString* staging = nullptr) {
        const QString folder = freshStaging();
        if (staging)
            *staging = folder;
        try {
            BuildWriter writer(folder, BuildWriter::Start::empty);
            writer.writeFiles(writer.makeTree(index), locations);
            writer.finishFolders();
            return QStringLiteral("ok");
        } catch (const ChunkAssemblyError& error) {
            return QString::fromUtf8(error.what());
        }
    }

private slots:
    void initTestCase() {
        source_ = dir_.filePath(QStringLiteral("source"));
        TestFiles::makeBuild(source_);
        TestFiles::writeFile(source_ + QStringLiteral("/data/a.pak"), pattern(5000, 1));
        TestFiles::writeFile(source_ + QStringLiteral("/data/b.txt"), pattern(3000, 2) + pattern(3000, 2), 0600);
        TestFiles::writeFile(source_ + QStringLiteral("/empty.txt"), QByteArray());
        TestFiles::writeFile(source_ + QStringLiteral("/shared.cfg"), "group may write", 0664);
        TestFiles::makeFolder(source_ + QStringLiteral("/saves/none"));
        QVERIFY(QFile::link(QStringLiteral("data/a.pak"), source_ + QStringLiteral("/current.pak")));
        // A folder nobody may write to, filled all the same.
        TestFiles::writeFile(source_ + QStringLiteral("/locked/inside.txt"), "inside");
        QVERIFY(::chmod(QFile::encodeName(source_ + QStringLiteral("/locked")).constData(), 0555) == 0);
        // Times long past, so that an assembled tree that took the install's times shows it.
        QDirIterator it(source_, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden, QDirIterator::Subdirectories);
        QStringList everything;
        while (it.hasNext())
            everything.prepend(it.next()); // innermost first: setting a time changes no folder's
        for (const QString& path : everything + QStringList{source_})
            QVERIFY(setModified(path, kReleaseTime));
        archive_ = dir_.filePath(QStringLiteral("source.tar.gz"));
        TestArchives::create(archive_, source_, QDir(source_).entryList(QDir::AllEntries | QDir::NoDotAndDotDot));
        index_ = TreeChunker::index(source_, kSmall,
                                    [&](const ChunkIndexEntry& file, const ChunkRef& chunk, std::uint64_t offset,
                                        const unsigned char*, std::size_t) {
                                        locations_.insert(chunk.sha256, ChunkLocation{source_ + QLatin1Char('/') + file.path,
                                                                                      qint64(offset)});
                                    });
    }
    void cleanupTestCase() {
        // Let the temporary folder go, read-only folders and all.
        for (const QString& locked : QDir(dir_.path()).entryList({QStringLiteral("*")}, QDir::Dirs | QDir::NoDotAndDotDot))
            ::chmod(QFile::encodeName(dir_.filePath(locked + QStringLiteral("/locked"))).constData(), 0755);
    }

    // The same tree as tar unpacks from an archive of the source, under the same umask: contents,
    // kinds, modes, modification times, symlinks and empty folders.
    void treeComesOutAsTarUnpacksIt_data() {
        QTest::addColumn<int>("umask");
        QTest::newRow("022") << 022;
        QTest::newRow("027") << 027;
        QTest::newRow("077") << 077;
    }
    void treeComesOutAsTarUnpacksIt() {
        QFETCH(int, umask);
        const mode_t previous = ::umask(mode_t(umask));
        QString staging;
        const QString outcome = assemble(index_, locations_, &staging);
        const QString unpacked = freshStaging();
        TestArchives::tar({QStringLiteral("-xzf"), archive_, QStringLiteral("-C"), unpacked});
        ::umask(previous);
        QCOMPARE(outcome, QStringLiteral("ok"));
        QCOMPARE(TreeSnapshot::of(staging), TreeSnapshot::of(unpacked));
        // Folders too, though filled after they were made.
        for (const QString& folder : {QStringLiteral("data"), QStringLiteral("saves/none"), QStringLiteral("locked")})
            QCOMPARE(modifiedAt(staging + QLatin1Char('/') + folder), kReleaseTime);
    }

    // The twin: an index written before times were recorded still installs, with the install's
    // times, as before.
    void indexWithoutTimesGivesTheInstallsTimes() {
        ChunkIndex untimed = index_;
        for (ChunkIndexEntry& entry : untimed.entries)
            entry.mtime.reset();
        QString staging;
        QCOMPARE(assemble(untimed, locations_, &staging), QStringLiteral("ok"));
        QVERIFY(modifiedAt(staging + QStringLiteral("/data/a.pak")) > kReleaseTime);
        QVERIFY(modifiedAt(staging + QStringLiteral("/data")) > kReleaseTime);
        QCOMPARE(TreeSnapshot::of(staging, TreeSnapshot::Times::ignored),
                 TreeSnapshot::of(source_, TreeSnapshot::Times::ignored));
    }

    // A location that holds other bytes: the file's digest gives it away.
    void bytesOtherThanTheIndexSaysAreRefused() {
        QHash<QString, ChunkLocation> wrong = locations_;
        const ChunkIndexEntry* file = nullptr;
        for (const ChunkIndexEntry& entry : index_.entries)
            if (entry.path == QStringLiteral("data/a.pak"))
                file = &entry;
        QVERIFY(file && file->chunks.size() > 1);
        wrong[file->chunks[1].sha256].offset += 1;
        QVERIFY(assemble(index_, wrong).contains(QStringLiteral("does not have the SHA-256")));
    }

    void chunkThatIsNowhereIsRefused() {
        QHash<QString, ChunkLocation> partial = locations_;
        partial.erase(partial.begin());
        QVERIFY(assemble(index_, partial).contains(QStringLiteral("which is nowhere")));
    }

    // A source shorter than the chunk read from it.
    void sourceThatEndsEarlyIsRefused() {
        QHash<QString, ChunkLocation> shortened = locations_;
        const QString shortFile = dir_.filePath(QStringLiteral("short.pak"));
        TestFiles::writeFile(shortFile, "tiny");
        for (auto it = shortened.begin(); it != shortened.end(); ++it)
            it->file = shortFile;
        QVERIFY(assemble(index_, shortened).contains(QStringLiteral("ends before the chunk does")));
    }

};

QTEST_GUILESS_MAIN(TestBuildWriter)
#include "TestBuildWriter.moc"
