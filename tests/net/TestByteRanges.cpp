#include "TaskOutcome.h"
#include "TestFiles.h"
#include "TestRequirements.h"
#include "TestServer.h"

#include "net/ByteRanges.h"
#include "net/HttpClient.h"

#include <QTemporaryDir>
#include <QTest>

using ByteRanges::Range;

namespace {

// One part of an answer, whole: the bytes of `range`.
struct Part {
    Range range;
    QByteArray bytes;
};

// The parts of a whole 206 body as a BodyReader hands them on, bytes that follow each other
// joined.
std::vector<Part> partsOf(const QByteArray& contentType, const QByteArray& contentRange, const QByteArray& body) {
    std::vector<Part> parts;
    ByteRanges::BodyReader reader(contentType, contentRange, [&parts](qint64 offset, const char* data, qint64 size) {
        if (parts.empty() || parts.back().range.last + 1 != offset)
            parts.push_back(Part{Range{offset, offset - 1}, QByteArray()});
        parts.back().bytes.append(data, size);
        parts.back().range.last += size;
    });
    reader.feed(body.constData(), body.size());
    reader.finish();
    return parts;
}

QByteArray partOf(const QByteArray& boundary, qint64 first, const QByteArray& bytes, qint64 total) {
    return "\r\n--" + boundary + "\r\nContent-Type: application/octet-stream\r\nContent-Range: bytes " +
           QByteArray::number(first) + '-' + QByteArray::number(first + bytes.size() - 1) + '/' +
           QByteArray::number(total) + "\r\n\r\n" + bytes;
}

QString networkErrorOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const NetworkError& error) {
        return QString::fromUtf8(error.what());
    }
    return QString();
}

} // namespace

// Many parts of one file in one request, as a release's chunk pack is read: the Range header, the
// parts of a multipart answer read by their own lengths, and a real nginx answering them.
class TestByteRanges : public QObject {
    Q_OBJECT

    QTemporaryDir temp;
    std::unique_ptr<TestServer> server;
    QByteArray file = TestFiles::randomBytes(300 * 1024, 7);

private slots:
    void headerJoinsRangesThatTouchAndSortsThem() {
        QCOMPARE(ByteRanges::header({{100, 199}, {0, 9}, {200, 299}, {10, 19}, {500, 599}, {550, 560}}),
                 QByteArray("bytes=0-19,100-299,500-599"));
        QCOMPARE(ByteRanges::header({{5, 5}}), QByteArray("bytes=5-5"));
    }

    // Parts are taken by the length their Content-Range gives, even when the bytes hold what
    // looks like the boundary.
    void multipartPartsAreReadByTheirOwnLength() {
        const QByteArray boundary = "00000000000000000002";
        const QByteArray tricky = "ab\r\n--" + boundary + "\r\ncd";
        const QByteArray body = partOf(boundary, 10, tricky, 1000) + partOf(boundary, 500, "xyz", 1000) + "\r\n--" +
                                boundary + "--\r\n";
        const std::vector<Part> parts =
            partsOf("multipart/byteranges; boundary=" + boundary, QByteArray(), body);
        QCOMPARE(parts.size(), std::size_t(2));
        QCOMPARE(parts[0].range, (Range{10, 10 + tricky.size() - 1}));
        QCOMPARE(parts[0].bytes, tricky);
        QCOMPARE(parts[1].range, (Range{500, 502}));
        QCOMPARE(parts[1].bytes, QByteArray("xyz"));
        // A quoted boundary is the same boundary.
        QCOMPARE(partsOf("multipart/byteranges; boundary=\"" + boundary + '"', QByteArray(), body).size(),
                 std::size_t(2));
    }

    // However the body is cut as it arrives, down to single bytes, the same bytes reach the
    // same offsets.
    void aBodyReadByteByByteGivesTheSameParts() {
        const QByteArray boundary = "00000000000000000007";
        const QByteArray body = partOf(boundary, 3, "hello world", 100) + partOf(boundary, 40, "zz", 100) + "\r\n--" +
                                boundary + "--\r\n";
        QByteArray seen(100, '.');
        ByteRanges::BodyReader reader("multipart/byteranges; boundary=" + boundary, QByteArray(),
                                      [&seen](qint64 offset, const char* data, qint64 size) {
                                          seen.replace(offset, size, QByteArray(data, size));
                                      });
        for (const char byte : body)
            reader.feed(&byte, 1);
        reader.finish();
        QCOMPARE(seen.left(45), QByteArray("...hello world..........................zz..."));
    }

    void singlePartIsWhatContentRangeNames() {
        const std::vector<Part> parts = partsOf("application/octet-stream", "bytes 4-6/10", "abc");
        QCOMPARE(parts.size(), std::size_t(1));
        QCOMPARE(parts[0].range, (Range{4, 6}));
        QCOMPARE(parts[0].bytes, QByteArray("abc"));
    }

    // The twins: answers that do not hold together are refused, never read past their end.
    void malformedAnswersAreRefused_data() {
        const QByteArray boundary = "B0UND";
        const QByteArray type = "multipart/byteranges; boundary=" + boundary;
        const QByteArray good = partOf(boundary, 0, "hello", 100);
        QTest::addColumn<QByteArray>("contentType");
        QTest::addColumn<QByteArray>("contentRange");
        QTest::addColumn<QByteArray>("body");
        QTest::newRow("no content range") << QByteArray("text/plain") << QByteArray() << QByteArray("abc");
        QTest::newRow("range longer than body") << QByteArray() << QByteArray("bytes 0-9/10") << QByteArray("abc");
        QTest::newRow("range past its total") << QByteArray() << QByteArray("bytes 5-9/8") << QByteArray("abcde");
        QTest::newRow("no part") << type << QByteArray() << QByteArray("nothing here");
        QTest::newRow("part cut short") << type << QByteArray() << partOf(boundary, 0, "hello", 100).chopped(2);
        QTest::newRow("no closing boundary") << type << QByteArray() << good;
        QTest::newRow("part without range")
            << type << QByteArray() << QByteArray("\r\n--B0UND\r\nContent-Type: x\r\n\r\nhello\r\n--B0UND--\r\n");
        QTest::newRow("part longer than said")
            << type << QByteArray() << QByteArray(good + "EXTRA\r\n--B0UND--\r\n");
        QTest::newRow("headers never end")
            << type << QByteArray() << QByteArray("\r\n--B0UND\r\nContent-Range: bytes 0-4/100");
        QTest::newRow("bytes after the end") << type << QByteArray() << QByteArray(good + "\r\n--B0UND--\r\nmore");
        QTest::newRow("huge range") << type << QByteArray()
                                    << QByteArray("\r\n--B0UND\r\nContent-Range: bytes 0-999999999999/1000000000000\r\n\r\nx");
    }
    void malformedAnswersAreRefused() {
        QFETCH(QByteArray, contentType);
        QFETCH(QByteArray, contentRange);
        QFETCH(QByteArray, body);
        const QString error = networkErrorOf([&] { partsOf(contentType, contentRange, body); });
        QVERIFY2(!error.isEmpty(), "accepted");
    }

    void initTestCase() {
        ZENTHO_REQUIRE(nginx);
        QVERIFY(temp.isValid());
        qputenv("TMPDIR", QFile::encodeName(temp.path()));
        server = std::make_unique<TestServer>();
        TestServer::trustInThisProcess();
        server->writeFile(QStringLiteral("pack.bin"), file);
    }

    // nginx answers many ranges in one multipart body, one range as a plain 206; each part holds
    // the file's bytes.
    void aRealServerAnswersManyRangesInOneRequest() {
        HttpClient client;
        const std::vector<Range> asked{{0, 99}, {4096, 8191}, {200000, 200000}, {300 * 1024 - 10, 300 * 1024 - 1}};
        QByteArray seen(file.size(), '\0');
        QByteArray expected(file.size(), '\0');
        qint64 taken = 0;
        const ByteRanges::Take take = [&](qint64 offset, const char* data, qint64 size) {
            seen.replace(offset, size, QByteArray(data, size));
            taken += size;
        };
        QVERIFY(!waitForOutcome(ByteRanges::fetch(client, server->url("/pack.bin"), asked, take)));
        qint64 askedBytes = 0;
        for (const Range& range : asked) {
            expected.replace(range.first, range.size(), file.mid(range.first, range.size()));
            askedBytes += range.size();
        }
        QCOMPARE(taken, askedBytes);
        QCOMPARE(seen, expected);
        taken = 0;
        seen.fill('\0');
        QVERIFY(!waitForOutcome(ByteRanges::fetch(client, server->url("/pack.bin"), {{10, 20}}, take)));
        QCOMPARE(taken, qint64(11));
        QCOMPARE(seen.mid(10, 11), file.mid(10, 11));
    }

    // The twin: a server that ignores ranges answers 200 with the whole file, which is refused at
    // its head instead of read, as ranges ignored.
    void aServerThatIgnoresRangesIsRefused() {
        QCOMPARE(outcomeOf("/norange/pack.bin", {{0, 99}, {500, 599}}), QStringLiteral("ranges ignored"));
        QCOMPARE(outcomeOf("/norange/pack.bin", {{0, 99}}), QStringLiteral("ranges ignored"));
    }

    // A server that answers one range a request but not several (nginx max_ranges 1, as object
    // stores do) sends the whole file for several, refused as ranges ignored, and one range as asked.
    void aServerOfOneRangeARequestIgnoresOnlySeveral() {
        QCOMPARE(outcomeOf("/onerange/pack.bin", {{0, 99}, {500, 599}}), QStringLiteral("ranges ignored"));
        QCOMPARE(outcomeOf("/onerange/pack.bin", {{500, 599}}), QStringLiteral("the file's bytes"));
    }

private:
    // Fetches `ranges` of `path`: "the file's bytes", "ranges ignored" (a whole file refused at
    // its head), or what else went wrong.
    QString outcomeOf(const char* path, const std::vector<Range>& ranges) {
        HttpClient client;
        const std::exception_ptr failure = waitForOutcome(ByteRanges::fetch(
            client, server->url(path), ranges, [&](qint64 offset, const char* data, qint64 size) {
                if (QByteArray(data, size) != file.mid(offset, size))
                    throw std::runtime_error("other bytes than the file's");
            }));
        if (!failure)
            return QStringLiteral("the file's bytes");
        try {
            std::rethrow_exception(failure);
        } catch (const ByteRanges::RangesIgnored& ignored) {
            return QString::fromUtf8(ignored.what()).contains(QStringLiteral("whole file")) ? QStringLiteral("ranges ignored")
                                                                                          : QString::fromUtf8(ignored.what());
        } catch (const std::exception& other) {
            return QString::fromUtf8(other.what());
        }
    }
};

QTEST_GUILESS_MAIN(TestByteRanges)
#include "TestByteRanges.moc"
