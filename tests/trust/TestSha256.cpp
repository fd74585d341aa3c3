#include "trust/Sha256.h"

#include <QCryptographicHash>
#include <QTest>

namespace {

QString oneShot(const QByteArray& bytes) {
    Sha256 hash;
    hash.update(bytes);
    return hash.finishHex();
}

} // namespace

class TestSha256 : public QObject {
    Q_OBJECT

private slots:
    void knownDigests() {
        QCOMPARE(oneShot(QByteArray()),
                 QStringLiteral("e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"));
        QCOMPARE(oneShot("abc"),
                 QStringLiteral("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"));
        QVERIFY(oneShot("abd") != oneShot("abc"));
    }

    void piecesGiveTheSameDigestAsTheWhole() {
        QByteArray bytes;
        for (int i = 0; i < 300000; ++i)
            bytes.append(char(i * 7 + i / 13));
        Sha256 pieces;
        for (qsizetype at = 0; at < bytes.size(); at += 4093)
            pieces.update(bytes.mid(at, 4093));
        const QString digest = pieces.finishHex();
        QCOMPARE(digest, oneShot(bytes));
        QCOMPARE(digest, QString::fromLatin1(
                             QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex()));
        QCOMPARE(digest.size(), 64);
        QVERIFY(digest != oneShot(bytes.left(bytes.size() - 1)));
    }
};

QTEST_MAIN(TestSha256)
#include "TestSha256.moc"
