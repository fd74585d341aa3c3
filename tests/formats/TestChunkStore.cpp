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
