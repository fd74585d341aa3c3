#include "formats/ChunkIndex.h"
#include "formats/CompressedChunkIndex.h"

#include <QTest>

#include <zstd.h>

namespace {

// An index of `files` files of one chunk each, as the release tool writes it.
QByteArray indexOf(int files) {
    ChunkIndex index;
    for (int i = 0; i < files; ++i) {
        ChunkIndexEntry entry;
        entry.path = QStringLiteral("data/file%1.bin").arg(i);
        entry.mode = 0644;
        entry.size = 1000 + i;
        entry.sha256 = QString::fromLatin1(QByteArray::number(i).rightJustified(64, '0'));
        entry.chunks.push_back({QString::fromLatin1(QByteArray::number(i * 7 + 1).rightJustified(64, 'a')), entry.size});
        index.entries.push_back(entry);
    }
    ChunkIndexEntry data;
    data.path = QStringLiteral("data");
    data.kind = ChunkIndexEntry::Kind::folder;
    data.mode = 0755;
    index.entries.insert(index.entries.begin(), data);
    return index.encode();
}

// Why decompress refuses `frame`, or a null string when it does not.
QString refusalOf(const QByteArray& frame) {
    try {
        CompressedChunkIndex::decompress(frame);
    } catch (const ChunkIndexError& error) {
        return QString::fromUtf8(error.what());
    }
    return {};
}

} // namespace

class TestCompressedChunkIndex : public QObject {
    Q_OBJECT

private slots:
    // What a launcher fetches decompresses to the exact JSON the release tool wrote, which
    // decodes as the index itself; and it is far smaller.
    void aCompressedIndexHoldsTheSameBytes() {
        const QByteArray json = indexOf(2000);
        const QByteArray frame = CompressedChunkIndex::compress(json);
        QVERIFY2(frame.size() * 2 < json.size(), qPrintable(QStringLiteral("%1 of %2").arg(frame.size()).arg(json.size())));
        const QByteArray back = CompressedChunkIndex::decompress(frame);
        QCOMPARE(back, json);
        QCOMPARE(ChunkIndex::decode(back), ChunkIndex::decode(json));
        QCOMPARE(CompressedChunkIndex::decompress(CompressedChunkIndex::compress(QByteArray())), QByteArray());
    }

    // Its twins: what is not exactly one whole frame.
    void anythingButOneWholeFrameIsRefused() {
        const QByteArray frame = CompressedChunkIndex::compress(indexOf(50));
        QVERIFY(refusalOf(frame).isNull());
        for (const QByteArray& bad : {indexOf(50), QByteArray(), frame.left(frame.size() - 1), frame + frame,
                                      frame + QByteArray("x")}) {
            const QString refusal = refusalOf(bad);
            QVERIFY2(refusal.contains(QLatin1String("not one zstd frame")), qPrintable(refusal));
        }
    }

    // A few kilobytes that would grow past the cap are refused once the cap is passed, whether
    // the frame's header says its size or not.
    void aFrameThatGrowsPastTheCapIsRefused() {
        const QByteArray atCap(ChunkIndex::kMaxBytes, ' ');
        QCOMPARE(CompressedChunkIndex::decompress(CompressedChunkIndex::compress(atCap)).size(), atCap.size());

        const QByteArray over(ChunkIndex::kMaxBytes + 1, ' ');
        const QByteArray bomb = CompressedChunkIndex::compress(over);
        QVERIFY(bomb.size() < 64 * 1024);
        QVERIFY2(refusalOf(bomb).contains(QLatin1String("holds more than")), qPrintable(refusalOf(bomb)));

        // The same content streamed, so that the header cannot say how much is coming.
        ZSTD_CCtx* context = ZSTD_createCCtx();
        QCOMPARE(ZSTD_CCtx_setParameter(context, ZSTD_c_contentSizeFlag, 0), std::size_t(0));
        QByteArray streamed(qsizetype(ZSTD_compressBound(std::size_t(over.size()))), Qt::Uninitialized);
        ZSTD_outBuffer out{streamed.data(), std::size_t(streamed.size()), 0};
        ZSTD_inBuffer in{over.constData(), std::size_t(over.size()), 0};
        QCOMPARE(ZSTD_compressStream2(context, &out, &in, ZSTD_e_end), std::size_t(0));
        ZSTD_freeCCtx(context);
        streamed.truncate(qsizetype(out.pos));
        QCOMPARE(ZSTD_getFrameContentSize(streamed.constData(), std::size_t(streamed.size())), ZSTD_CONTENTSIZE_UNKNOWN);
        QVERIFY2(refusalOf(streamed).contains(QLatin1String("holds more than")), qPrintable(refusalOf(streamed)));
    }
};

QTEST_GUILESS_MAIN(TestCompressedChunkIndex)
#include "TestCompressedChunkIndex.moc"
