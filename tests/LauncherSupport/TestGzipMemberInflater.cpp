#include "TestFiles.h"

#include <GzipMemberInflater.h>

#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTest>

namespace {

// What GNU gzip makes of `bytes`, so the inflater is checked against the reference program.
QByteArray gzip(const QStringList& arguments, const QByteArray& input, int* status = nullptr) {
    QProcess process;
    process.start(QStringLiteral("/usr/bin/gzip"), arguments);
    process.write(input);
    process.closeWriteChannel();
    process.waitForFinished(60000);
    if (status)
        *status = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    return process.readAllStandardOutput();
}

QByteArray compress(const QByteArray& plain) {
    return gzip({QStringLiteral("-c"), QStringLiteral("-n")}, plain);
}

// Some text that compresses, with a stretch of noise that does not.
QByteArray samplePlain() {
    QByteArray plain;
    for (int i = 0; i < 20000; ++i)
        plain += "line " + QByteArray::number(i) + " of a build's manifest\n";
    QByteArray noise(300 * 1024, '\0');
    QRandomGenerator rng(7);
    rng.fillRange(reinterpret_cast<quint32*>(noise.data()), noise.size() / 4);
    return plain + noise + plain;
}

// The member with its plain ten-byte header swapped for one with `flags` and `fields` after it.
QByteArray withHeader(const QByteArray& member, unsigned char flags, const QByteArray& fields) {
    QByteArray header = member.left(10);
    header[3] = static_cast<char>(flags);
    return header + fields + member.mid(10);
}

struct Inflated {
    bool accepted = false; // no feed refused
    bool complete = false;
    QByteArray output;
};

// Feeds `stream` in pieces of `piece` bytes (all at once when 0).
Inflated inflate(const QByteArray& stream, qsizetype piece = 0) {
    GzipMemberInflater inflater;
    Inflated result;
    result.accepted = true;
    const auto out = [&](const char* bytes, std::size_t size) {
        result.output.append(bytes, qsizetype(size));
    };
    const qsizetype step = piece > 0 ? piece : std::max<qsizetype>(stream.size(), 1);
    for (qsizetype at = 0; at < stream.size(); at += step) {
        const QByteArray part = stream.mid(at, step);
        if (!inflater.feed(part.constData(), std::size_t(part.size()), out))
            result.accepted = false;
    }
    result.complete = inflater.complete();
    if (result.complete)
        Q_ASSERT(!inflater.givenUp());
    return result;
}

} // namespace

class TestGzipMemberInflater : public QObject {
    Q_OBJECT

private slots:
    void inflatesWhatGzipMade_data() {
        QTest::addColumn<qsizetype>("piece");
        QTest::newRow("all at once") << qsizetype(0);
        QTest::newRow("byte by byte") << qsizetype(1);
        QTest::newRow("odd pieces") << qsizetype(4099);
        QTest::newRow("large pieces") << qsizetype(256 * 1024);
    }
    void inflatesWhatGzipMade() {
        QFETCH(qsizetype, piece);
        const QByteArray plain = samplePlain();
        const QByteArray member = compress(plain);
        // Byte by byte is slow for the whole sample; its head and a short member suffice there.
        const QByteArray stream = piece == 1 ? compress(plain.left(20000)) : member;
        const Inflated result = inflate(stream, piece);
        QVERIFY(result.accepted);
        QVERIFY(result.complete);
        QCOMPARE(result.output, piece == 1 ? plain.left(20000) : plain);
    }

    void headerFieldsGzipSkipsAreSkipped_data() {
        QTest::addColumn<int>("flags");
        QTest::addColumn<QByteArray>("fields");
        QTest::newRow("text flag") << 0x01 << QByteArray();
        QTest::newRow("extra field") << 0x04 << QByteArray("\x05\x00" "abcde", 7);
        QTest::newRow("empty extra field") << 0x04 << QByteArray("\x00\x00", 2);
        QTest::newRow("name") << 0x08 << QByteArray("build.tar\0", 10);
        QTest::newRow("comment") << 0x10 << QByteArray("made for a test\0", 16);
        QTest::newRow("all three") << 0x1c << QByteArray("\x01\x00" "x" "n\0" "c\0", 7);
        QTest::newRow("name of 255 bytes") << 0x08 << QByteArray(255, 'n') + QByteArray(1, '\0');
    }
    void headerFieldsGzipSkipsAreSkipped() {
        QFETCH(int, flags);
        QFETCH(QByteArray, fields);
        const QByteArray plain = samplePlain();
        const QByteArray stream = withHeader(compress(plain), static_cast<unsigned char>(flags), fields);
        int status = -1;
        QCOMPARE(gzip({QStringLiteral("-dc")}, stream, &status), plain); // gzip agrees
        QCOMPARE(status, 0);
        for (const qsizetype piece : {qsizetype(0), qsizetype(3)}) {
            const Inflated result = inflate(piece ? stream.left(4096) : stream, piece);
            QVERIFY(result.accepted);
            if (!piece) {
                QVERIFY(result.complete);
                QCOMPARE(result.output, plain);
            }
        }
    }

    // What the inflater leaves to gzip: each of these is either refused by gzip, or something
    // gzip decides in a way the inflater does not try to copy.
    void givesUpOnWhatGzipShouldJudge_data() {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<bool>("gzipAccepts");
        QTest::newRow("second member") << "second member" << true;
        QTest::newRow("trailing zero bytes") << "trailing zeros" << true;
        QTest::newRow("trailing garbage") << "trailing garbage" << false;
        QTest::newRow("wrong CRC") << "crc" << false;
        QTest::newRow("wrong length") << "length" << false;
        QTest::newRow("corrupt body") << "corrupt" << false;
        QTest::newRow("reserved flag") << "reserved" << false;
        QTest::newRow("encrypted flag") << "encrypted" << false;
        QTest::newRow("header checksum") << "hcrc" << false;
        QTest::newRow("name of 256 bytes") << "long name" << true;
        QTest::newRow("not gzip") << "plain" << false;
        QTest::newRow("compress format") << "lzw" << false;
        QTest::newRow("other method") << "method" << false;
    }
    void givesUpOnWhatGzipShouldJudge() {
        QFETCH(QString, kind);
        QFETCH(bool, gzipAccepts);
        const QByteArray plain = samplePlain();
        const QByteArray member = compress(plain);
        QByteArray stream = member;
        if (kind == QStringLiteral("second member")) {
            stream = member + compress("more");
        } else if (kind == QStringLiteral("trailing zeros")) {
            stream = member + QByteArray(10, '\0');
        } else if (kind == QStringLiteral("trailing garbage")) {
            stream = member + "junk";
        } else if (kind == QStringLiteral("crc")) {
            stream[stream.size() - 8] = static_cast<char>(stream[stream.size() - 8] ^ 1);
        } else if (kind == QStringLiteral("length")) {
            stream[stream.size() - 1] = static_cast<char>(stream[stream.size() - 1] ^ 1);
        } else if (kind == QStringLiteral("corrupt")) {
            stream = member.left(10) + QByteArray("\xff\xff\xff\xff not deflate at all") +
                     member.right(8);
        } else if (kind == QStringLiteral("reserved")) {
            stream = withHeader(member, 0x40, {});
        } else if (kind == QStringLiteral("encrypted")) {
            stream = withHeader(member, 0x20, {});
        } else if (kind == QStringLiteral("hcrc")) {
            // Whether gzip accepts depends on the checksum's value; the inflater leaves it to gzip.
            stream = withHeader(member, 0x02, QByteArray(2, '\0'));
        } else if (kind == QStringLiteral("long name")) {
            stream = withHeader(member, 0x08, QByteArray(256, 'n') + QByteArray(1, '\0'));
        } else if (kind == QStringLiteral("plain")) {
            stream = plain;
        } else if (kind == QStringLiteral("lzw")) {
            stream = QByteArray("\x1f\x9d\x90", 3) + plain.left(100);
        } else if (kind == QStringLiteral("method")) {
            stream[2] = 7;
        }
        int status = -1;
        gzip({QStringLiteral("-dc")}, stream, &status);
        if (kind != QStringLiteral("hcrc") && kind != QStringLiteral("lzw"))
            QCOMPARE(status == 0, gzipAccepts);
        const Inflated result = inflate(stream);
        QVERIFY(!result.accepted);
        QVERIFY(!result.complete);
    }

    // A member whose end has not arrived yet is neither complete nor refused: more may come.
    void cutOffMemberIsIncomplete_data() {
        QTest::addColumn<int>("missing");
        QTest::newRow("half the body") << -2;
        QTest::newRow("the whole trailer") << 8;
        QTest::newRow("part of the trailer") << 3;
        QTest::newRow("the last byte") << 1;
        QTest::newRow("all but the magic") << -1;
    }
    void cutOffMemberIsIncomplete() {
        QFETCH(int, missing);
        const QByteArray member = compress(samplePlain());
        const qsizetype keep = missing == -2 ? member.size() / 2
                               : missing == -1 ? 2
                                               : member.size() - missing;
        const Inflated cut = inflate(member.left(keep));
        QVERIFY(cut.accepted);
        QVERIFY(!cut.complete);
        // The twin: the rest arriving completes it.
        GzipMemberInflater inflater;
        QByteArray output;
        const auto out = [&](const char* b, std::size_t n) { output.append(b, qsizetype(n)); };
        QVERIFY(inflater.feed(member.constData(), std::size_t(keep), out));
        QVERIFY(inflater.feed(member.constData() + keep, std::size_t(member.size() - keep), out));
        QVERIFY(inflater.complete());
        QCOMPARE(output, samplePlain());
    }

    void nothingFedIsIncomplete() {
        GzipMemberInflater inflater;
        QVERIFY(!inflater.complete());
        QVERIFY(!inflater.givenUp());
        QVERIFY(inflater.feed(nullptr, 0, [](const char*, std::size_t) {}));
        QVERIFY(!inflater.complete());
    }
};

QTEST_GUILESS_MAIN(TestGzipMemberInflater)
#include "TestGzipMemberInflater.moc"
