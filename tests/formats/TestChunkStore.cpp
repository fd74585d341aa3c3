#include "formats/ChunkStore.h"

#include "TestFiles.h"

#include <QCryptographicHash>
#include <QTest>

namespace {

QString sha256(const QByteArray& bytes) {
    return QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex());
}

QByteArray stored(const QByteArray& bytes) {
    return ChunkStore::compress(bytes.constData(), std::size_t(bytes.size()));
}

// The reason decode gives, or a null string when it accepts the chunk.
QString refusalOf(const QByteArray& frame, qint64 size, const QString& name) {
    try {
        ChunkStore::decode(frame, size, name);
    } catch (const ChunkStoreError& error) {
        return QString::fromUtf8(error.what());
    }
    return {};
}

} // namespace

class TestChunkStore : public QObject {
    Q_OBJECT

    QByteArray text_;

private slots:
    void initTestCase() {
        for (int line = 0; text_.size() < 100000; ++line)
            text_ += "door." + QByteArray::number(line % 17) + " = open; light = " + QByteArray::number(line % 5) + "\n";
    }

    void aChunkLivesUnderTheFirstTwoDigitsOfItsName() {
        const QString name = sha256(text_);
        QCOMPARE(ChunkStore::relativePath(name), name.left(2) + QLatin1Char('/') + name + QStringLiteral(".zst"));
        QVERIFY(ChunkStore::isChunkName(name));
        QVERIFY(!ChunkStore::isChunkName(name.toUpper()));
        QVERIFY(!ChunkStore::isChunkName(name.left(63)));
        QVERIFY(!ChunkStore::isChunkName(name.left(63) + QLatin1Char('g')));
        QVERIFY(!ChunkStore::isChunkName(QStringLiteral("../") + name.left(61)));
    }

    void storedChunksComeBackAsTheyWent() {
        const QByteArray noise = TestFiles::randomBytes(70000, 3);
        for (const QByteArray& bytes : {text_, noise, QByteArray("x")}) {
            const QByteArray frame = stored(bytes);
            QCOMPARE(ChunkStore::decode(frame, bytes.size(), sha256(bytes)), bytes);
        }
        // Text shrinks; noise costs only a frame's few bytes more.
        QVERIFY(stored(text_).size() * 4 < text_.size());
        QVERIFY(stored(noise).size() < noise.size() + 64);
    }

    // A chunk that replaces a similar one (its bytes shifted, a spot rewritten) costs a few
    // hundred bytes as a delta against it, where its own frame takes all its noise.
    void aDeltaMakesTheChunkFromItsBaseInAFewBytes() {
        const QByteArray base = TestFiles::randomBytes(60000, 5);
        QByteArray chunk = TestFiles::randomBytes(300, 6) + base.mid(0, 30000) + TestFiles::randomBytes(100, 7) + base.mid(30100);
        const QByteArray delta = ChunkStore::compressAgainst(chunk.constData(), std::size_t(chunk.size()), base);
        QVERIFY2(delta.size() < 1000, qPrintable(QString::number(delta.size())));
        QCOMPARE(ChunkStore::decodeAgainst(delta, base, chunk.size(), sha256(chunk)), chunk);
        QVERIFY(stored(chunk).size() > chunk.size() - 100);
    }

    // The twins: against other bytes than its base, or read as a whole frame, a delta is refused,
    // never taken for the chunk.
    void aDeltaAgainstOtherBytesIsRefused() {
        const QByteArray base = TestFiles::randomBytes(60000, 5);
        const QByteArray chunk = base.mid(1000, 40000) + "edited";
        const QByteArray delta = ChunkStore::compressAgainst(chunk.constData(), std::size_t(chunk.size()), base);
        QByteArray changed = base;
        changed[5000] = char(changed[5000] ^ 1);
        for (const QByteArray& other : {changed, base.left(30000), QByteArray()}) {
            try {
                ChunkStore::decodeAgainst(delta, other, chunk.size(), sha256(chunk));
                QFAIL("a delta against other bytes was taken");
            } catch (const ChunkStoreError&) {
            }
        }
        QVERIFY(!refusalOf(delta, chunk.size(), sha256(chunk)).isNull());
        QByteArray spoilt = delta;
        spoilt[spoilt.size() / 2] = char(spoilt[spoilt.size() / 2] ^ 0x40);
        try {
            ChunkStore::decodeAgainst(spoilt, base, chunk.size(), sha256(chunk));
            QFAIL("a spoilt delta was taken");
        } catch (const ChunkStoreError&) {
        }
    }

    void aChunkThatIsNotWhatItsNameSaysIsRefused() {
        const QByteArray frame = stored(text_);
        const QString name = sha256(text_);
        QVERIFY(refusalOf(frame, text_.size(), name).isNull());

        QVERIFY(refusalOf(frame, text_.size() - 1, name).contains("holds another size"));
        QVERIFY(refusalOf(frame, text_.size() + 1, name).contains("holds another size"));
        QVERIFY(refusalOf(frame, text_.size(), sha256("other")).contains("does not match its name"));
        // Another chunk's sound frame under this chunk's name.
        QByteArray other = text_;
        other[500] = 'X';
        QVERIFY(refusalOf(stored(other), text_.size(), name).contains("does not match its name"));
        QVERIFY(refusalOf(frame + frame, text_.size(), name).contains("is not one zstd frame"));
        QVERIFY(refusalOf(frame + "junk", text_.size(), name).contains("is not one zstd frame"));
        QVERIFY(refusalOf(frame.left(frame.size() - 1), text_.size(), name).contains("is not one zstd frame"));
        QVERIFY(refusalOf(QByteArray("not zstd at all"), text_.size(), name).contains("is not one zstd frame"));
        QVERIFY(refusalOf(QByteArray(), 0, sha256(QByteArray())).contains("is not one zstd frame"));
        QByteArray flipped = frame;
        flipped[flipped.size() / 2] = char(flipped[flipped.size() / 2] ^ 0x10);
        QVERIFY(!refusalOf(flipped, text_.size(), name).isNull());
    }
};

QTEST_GUILESS_MAIN(TestChunkStore)
#include "TestChunkStore.moc"
