#include <ContentChunker.h>

#include "TestFiles.h"

#include <QCryptographicHash>
#include <QSet>
#include <QTemporaryDir>
#include <QTest>

#include <fcntl.h>
#include <system_error>
#include <unistd.h>

namespace {

const ChunkSizes kSmall{1024, 4096, 16384};

// The chunk lengths of `bytes`, cut from the front as a reader of a whole buffer would.
QList<qsizetype> lengths(const ContentChunker& chunker, const QByteArray& bytes) {
    QList<qsizetype> cuts;
    const auto* data = reinterpret_cast<const unsigned char*>(bytes.constData());
    for (qsizetype at = 0; at < bytes.size();) {
        const std::size_t length = chunker.cut(data + at, std::size_t(bytes.size() - at));
        cuts.append(qsizetype(length));
        at += qsizetype(length);
    }
    return cuts;
}

// The chunks' digests, in order.
QList<QByteArray> names(const QByteArray& bytes, const QList<qsizetype>& cuts) {
    QList<QByteArray> digests;
    qsizetype at = 0;
    for (const qsizetype length : cuts) {
        digests.append(QCryptographicHash::hash(bytes.mid(at, length), QCryptographicHash::Sha256));
        at += length;
    }
    return digests;
}

QList<qsizetype> fixedLengths(qsizetype total, qsizetype length) {
    QList<qsizetype> cuts;
    for (qsizetype at = 0; at < total; at += length)
        cuts.append(qMin(length, total - at));
    return cuts;
}

// How many chunks of `after` are not among the chunks of `before`.
int unshared(const QList<QByteArray>& before, const QList<QByteArray>& after) {
    const QSet<QByteArray> known(before.cbegin(), before.cend());
    int count = 0;
    for (const QByteArray& name : after)
        count += known.contains(name) ? 0 : 1;
    return count;
}

} // namespace

class TestContentChunker : public QObject {
    Q_OBJECT

private slots:
    void theSameBytesAlwaysGiveTheSameCuts() {
        const QByteArray bytes = TestFiles::randomBytes(1 << 20, 7);
        const QList<qsizetype> first = lengths(ContentChunker(kSmall), bytes);
        QCOMPARE(lengths(ContentChunker(kSmall), bytes), first);
        // The cuts follow the content: other bytes cut elsewhere.
        QVERIFY(lengths(ContentChunker(kSmall), TestFiles::randomBytes(1 << 20, 8)) != first);
    }

    // The cuts of the default sizes are part of the published format: chunks already in a store
    // must keep their names in every later build of the tool and the launcher.
    void theDefaultCutsOfAKnownInputNeverChange() {
        QByteArray bytes;
        quint64 state = 1;
        for (int i = 0; i < 1 << 20; ++i) {
            state = state * 6364136223846793005ULL + 1442695040888963407ULL;
            bytes.append(char(state >> 56));
        }
        const QList<qsizetype> cuts = lengths(ContentChunker(), bytes);
        QCOMPARE(cuts, (QList<qsizetype>{82155, 67036, 190125, 26482, 56601, 74863, 77208, 59355, 87627,
                                         89411, 19464, 68072, 76117, 74060}));
    }

    void everyChunkStaysWithinItsBounds() {
        for (const ChunkSizes sizes : {kSmall, kDefaultChunkSizes}) {
            const ContentChunker chunker(sizes);
            // Random bytes, and bytes without a cut point so only the maximum can end a chunk.
            for (const QByteArray& bytes : {TestFiles::randomBytes(3 << 20, 3), QByteArray(3 << 20, 'z')}) {
                const QList<qsizetype> cuts = lengths(chunker, bytes);
                qsizetype total = 0;
                for (qsizetype i = 0; i < cuts.size(); ++i) {
                    QVERIFY(cuts[i] <= qsizetype(sizes.max));
                    if (i + 1 < cuts.size())
                        QVERIFY2(cuts[i] >= qsizetype(sizes.min), qPrintable(QString::number(cuts[i])));
                    total += cuts[i];
                }
                QCOMPARE(total, bytes.size());
            }
            // Constant bytes never match the mask: every chunk is as long as allowed.
            QCOMPARE(lengths(chunker, QByteArray(3 << 20, 'z')).first(), qsizetype(sizes.max));
        }
        const ContentChunker chunker(kSmall);
        QCOMPARE(chunker.cut(nullptr, 0), std::size_t(0));
        QCOMPARE(lengths(chunker, QByteArray(10, 'a')), QList<qsizetype>{10});
    }

    void chunksAverageNearTheChosenSize() {
        const QByteArray bytes = TestFiles::randomBytes(32 << 20, 11);
        const QList<qsizetype> cuts = lengths(ContentChunker(), bytes);
        const double average = double(bytes.size()) / double(cuts.size());
        QVERIFY2(average > 0.75 * double(kDefaultChunkSizes.average) && average < 1.5 * double(kDefaultChunkSizes.average), qPrintable(QString::number(average)));
    }

    // An insertion near the start changes the chunks around it; every later chunk is found
    // again. Fixed-size pieces, measured the same way, lose nearly all of them: the measure can
    // tell the two apart.
    void anInsertionChangesOnlyTheChunksNearIt() {
        const QByteArray before = TestFiles::randomBytes(4 << 20, 21);
        QByteArray after = before;
        after.insert(5000, TestFiles::randomBytes(100, 22));
        const ContentChunker chunker(kSmall);
        const QList<QByteArray> oldNames = names(before, lengths(chunker, before));
        const QList<QByteArray> newNames = names(after, lengths(chunker, after));
        QVERIFY2(unshared(oldNames, newNames) <= 2, qPrintable(QString::number(unshared(oldNames, newNames))));
        QVERIFY(newNames.size() > 500);

        const QList<QByteArray> fixedOld = names(before, fixedLengths(before.size(), 4096));
        const QList<QByteArray> fixedNew = names(after, fixedLengths(after.size(), 4096));
        QVERIFY(unshared(fixedOld, fixedNew) > fixedNew.size() - 5);
    }

    void aChangedByteChangesOneChunkOrTwo() {
        const QByteArray before = TestFiles::randomBytes(4 << 20, 31);
        QByteArray after = before;
        after[2 << 20] = char(after[2 << 20] ^ 0x40);
        const ContentChunker chunker(kSmall);
        const int changed = unshared(names(before, lengths(chunker, before)), names(after, lengths(chunker, after)));
        QVERIFY2(changed >= 1 && changed <= 2, qPrintable(QString::number(changed)));
    }

    void aFileIsCutAsTheWholeBufferIs() {
        QTemporaryDir folder;
        const QString path = folder.filePath(QStringLiteral("data"));
        // Long enough that the reader refills its buffer many times.
        const QByteArray bytes = TestFiles::randomBytes(9 << 20, 41) + QByteArray(3 << 20, 'q');
        TestFiles::writeFile(path, bytes);
        const ContentChunker chunker;
        const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC);
        QVERIFY(fd >= 0);
        QList<qsizetype> cuts;
        QByteArray joined;
        std::uint64_t expectedOffset = 0;
        chunker.chunkFile(fd, [&](std::uint64_t offset, const unsigned char* data, std::size_t size) {
            QCOMPARE(offset, expectedOffset);
            expectedOffset += size;
            cuts.append(qsizetype(size));
            joined.append(reinterpret_cast<const char*>(data), qsizetype(size));
        });
        ::close(fd);
        QCOMPARE(cuts, lengths(chunker, bytes));
        QCOMPARE(joined, bytes);

        // An empty file has no chunks at all.
        TestFiles::writeFile(path, QByteArray());
        const int empty = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC);
        int calls = 0;
        chunker.chunkFile(empty, [&](std::uint64_t, const unsigned char*, std::size_t) { ++calls; });
        ::close(empty);
        QCOMPARE(calls, 0);
    }

    void aReadErrorIsThrown() {
        QTemporaryDir folder;
        const int fd = ::open(QFile::encodeName(folder.path()).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        QVERIFY(fd >= 0);
        bool thrown = false;
        try {
            ContentChunker().chunkFile(fd, [](std::uint64_t, const unsigned char*, std::size_t) {});
        } catch (const std::system_error& error) {
            thrown = error.code().value() == EISDIR;
        }
        ::close(fd);
        QVERIFY(thrown);
    }

    void sizesThatCannotWorkAreRefused() {
        QVERIFY_THROWS_EXCEPTION(std::invalid_argument, ContentChunker(ChunkSizes{0, 4096, 16384}));
        QVERIFY_THROWS_EXCEPTION(std::invalid_argument, ContentChunker(ChunkSizes{8192, 4096, 16384}));
        QVERIFY_THROWS_EXCEPTION(std::invalid_argument, ContentChunker(ChunkSizes{1024, 4096, 2048}));
        QVERIFY_THROWS_EXCEPTION(std::invalid_argument, ContentChunker(ChunkSizes{1024, 5000, 16384}));
        QCOMPARE(ContentChunker(kSmall).sizes(), kSmall);
    }
};

QTEST_GUILESS_MAIN(TestContentChunker)
#include "TestContentChunker.moc"
