#include "formats/TreeChunker.h"

#include "TestFiles.h"

#include <QCryptographicHash>
#include <QFile>
#include <QMap>
#include <QTemporaryDir>
#include <QTest>

#include <optional>

#include <fcntl.h>
#include <sys/stat.h>

namespace {

const ChunkSizes kSmall{1024, 4096, 16384};

QString sha256(const QByteArray& bytes) {
    return QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex());
}

QStringList paths(const ChunkIndex& index) {
    QStringList all;
    for (const ChunkIndexEntry& entry : index.entries)
        all.append(entry.path);
    return all;
}

} // namespace

class TestTreeChunker : public QObject {
    Q_OBJECT

    QTemporaryDir* tmp_ = nullptr;
    QString root_;
    QByteArray big_;

    // data/ (0750) with a file of many chunks, an empty file and a symlink; an empty folder; the
    // executable.
    void makeBuild() {
        root_ = tmp_->filePath(QStringLiteral("build"));
        TestFiles::makeFolder(root_ + QStringLiteral("/data"));
        TestFiles::makeFolder(root_ + QStringLiteral("/saves"));
        ::chmod(QFile::encodeName(root_ + QStringLiteral("/data")).constData(), 0750);
        big_ = TestFiles::randomBytes(300000, 5);
        TestFiles::writeFile(root_ + QStringLiteral("/data/big"), big_, 0640);
        TestFiles::writeFile(root_ + QStringLiteral("/data/empty"), QByteArray(), 0644);
        QFile::link(QStringLiteral("big"), root_ + QStringLiteral("/data/current"));
        TestFiles::writeFile(root_ + QStringLiteral("/zentho"), "#!/bin/sh\n", 0755);
    }

private slots:
    void init() {
        tmp_ = new QTemporaryDir;
        makeBuild();
    }
    void cleanup() { delete tmp_; }

    void everyEntryIsListedParentsFirstWithItsChunks() {
        QMap<QString, QByteArray> joined;
        QList<std::uint64_t> offsets;
        const ChunkIndex index = TreeChunker::index(
            root_, kSmall,
            [&](const ChunkIndexEntry& file, const ChunkRef& chunk, std::uint64_t offset, const unsigned char* data,
                std::size_t size) {
                QCOMPARE(chunk.size, qint64(size));
                const QByteArray bytes(reinterpret_cast<const char*>(data), qsizetype(size));
                QCOMPARE(chunk.sha256, sha256(bytes));
                if (file.path == QLatin1String("data/big"))
                    offsets.append(offset);
                joined[file.path] += bytes;
            });
        QCOMPARE(paths(index), (QStringList{"data", "data/big", "data/current", "data/empty", "saves", "zentho"}));
        QCOMPARE(index.chunking, kSmall);

        const ChunkIndexEntry& data = index.entries[0];
        QCOMPARE(data.kind, ChunkIndexEntry::Kind::folder);
        QCOMPARE(data.mode, 0750);
        const ChunkIndexEntry& big = index.entries[1];
        QCOMPARE(big.kind, ChunkIndexEntry::Kind::file);
        QCOMPARE(big.mode, 0640);
        QCOMPARE(big.size, qint64(big_.size()));
        QCOMPARE(big.sha256, sha256(big_));
        QVERIFY(big.chunks.size() > 10);
        QCOMPARE(joined.value(QStringLiteral("data/big")), big_);
        QCOMPARE(offsets.first(), std::uint64_t(0));
        QCOMPARE(offsets.last(), std::uint64_t(big_.size() - big.chunks.back().size));
        QCOMPARE(index.entries[2].kind, ChunkIndexEntry::Kind::symlink);
        QCOMPARE(index.entries[2].target, QStringLiteral("big"));
        QCOMPARE(index.entries[3].size, qint64(0));
        QVERIFY(index.entries[3].chunks.empty());
        QCOMPARE(index.entries[3].sha256, sha256(QByteArray()));
        QCOMPARE(index.entries[5].mode, 0755);

        // What the release tool writes, a launcher reads back the same.
        QCOMPARE(ChunkIndex::decode(index.encode()), index);
    }

    // Files and folders carry their modification times, in whole seconds as tar keeps them;
    // symlinks carry none.
    void modificationTimesAreRecorded() {
        const auto setModified = [](const QString& path, time_t seconds) {
            const struct timespec times[2] = {{seconds, 0}, {seconds, 999999999}};
            return ::utimensat(AT_FDCWD, QFile::encodeName(path).constData(), times, AT_SYMLINK_NOFOLLOW) == 0;
        };
        QVERIFY(setModified(root_ + QStringLiteral("/data/big"), 1600000000));
        QVERIFY(setModified(root_ + QStringLiteral("/data"), 1600000100));
        QMap<QString, std::optional<qint64>> times;
        for (const ChunkIndexEntry& entry : TreeChunker::index(root_, kSmall).entries)
            times.insert(entry.path, entry.mtime);
        QCOMPARE(times.value(QStringLiteral("data/big")), std::optional<qint64>(1600000000));
        QCOMPARE(times.value(QStringLiteral("data")), std::optional<qint64>(1600000100));
        QCOMPARE(times.value(QStringLiteral("data/current")), std::nullopt);
        QVERIFY(times.value(QStringLiteral("zentho")).has_value());
    }

    void aChangedFileChangesOnlyItsOwnEntry() {
        const ChunkIndex before = TreeChunker::index(root_, kSmall);
        TestFiles::writeFile(root_ + QStringLiteral("/zentho"), "#!/bin/sh\nexit 0\n", 0755);
        const ChunkIndex after = TreeChunker::index(root_, kSmall);
        for (std::size_t i = 0; i + 1 < after.entries.size(); ++i)
            QCOMPARE(after.entries[i], before.entries[i]);
        QVERIFY(!(after.entries.back() == before.entries.back()));
    }

    void aSpecialFileIsRefusedByName() {
        const QString fifo = root_ + QStringLiteral("/data/pipe");
        QCOMPARE(::mkfifo(QFile::encodeName(fifo).constData(), 0644), 0);
        try {
            TreeChunker::index(root_, kSmall);
            QFAIL("a FIFO was indexed");
        } catch (const std::runtime_error& error) {
            QCOMPARE(QString::fromUtf8(error.what()), fifo + QStringLiteral(": not a file, folder or symlink"));
        }
    }

    // The walk reports a setuid mode as it is, so the strict reader refuses the index that holds
    // it; the same build without the bit is read.
    void aSetuidModeIsKeptForTheReaderToRefuse() {
        ::chmod(QFile::encodeName(root_ + QStringLiteral("/zentho")).constData(), 04755);
        const ChunkIndex index = TreeChunker::index(root_, kSmall);
        QCOMPARE(index.entries.back().mode, 04755);
        QVERIFY_THROWS_EXCEPTION(ChunkIndexError, ChunkIndex::decode(index.encode()));
        ::chmod(QFile::encodeName(root_ + QStringLiteral("/zentho")).constData(), 0755);
        QCOMPARE(ChunkIndex::decode(TreeChunker::index(root_, kSmall).encode()).entries.back().mode, 0755);
    }

    void aMissingFolderIsAnError() {
        QVERIFY_THROWS_EXCEPTION(std::runtime_error, TreeChunker::index(root_ + QStringLiteral("/nothing"), kSmall));
    }
};

QTEST_GUILESS_MAIN(TestTreeChunker)
#include "TestTreeChunker.moc"
