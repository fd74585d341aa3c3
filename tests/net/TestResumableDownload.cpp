// The download engine against a real nginx (its own Range support, ETags, a location that ignores
// Range) and a fault server that drops connections in the body: what is asked for, what the
// digest and the body sink see, and what stays in the downloads folder.

#include "FaultServer.h"
#include "SmallDisk.h"
#include "TaskOutcome.h"
#include "TestFiles.h"
#include "TestRequirements.h"
#include "TestServer.h"

#include "errors/Failure.h"
#include "net/DownloadsFolder.h"
#include "net/FreeSpace.h"
#include "net/HttpClient.h"
#include "net/ResumableDownload.h"
#include "platform/FileManager.h"

#include <BodySink.h>

#include <QCryptographicHash>
#include <QDir>
#include <QEventLoop>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <memory>
#include <optional>

namespace {

// What a body sink was given: every byte in order, and where the body started over.
class RecordingSink : public BodySink {
public:
    void restart() override {
        restarts.append(bytes.size());
        afterLastRestart.clear();
    }
    void append(const char* data, std::size_t size) override {
        bytes.append(data, qsizetype(size));
        afterLastRestart.append(data, qsizetype(size));
    }
    QByteArray bytes;            // everything, restarts included
    QByteArray afterLastRestart; // what the digest saw in the end
    QList<qsizetype> restarts;   // how many bytes had been given at each restart
};

class RecordingObserver : public DownloadObserver {
public:
    void progressed(qint64 done, std::optional<qint64> total) override {
        reports.append({done, total.value_or(-1)});
    }
    void ended() override { ++ends; }
    QList<std::pair<qint64, qint64>> reports;
    int ends = 0;
};

QString sha256Of(const QByteArray& bytes) {
    return QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex());
}

// The validator nginx gives for `url` now, read with a HEAD request.
QByteArray etagOf(const QUrl& url) {
    QNetworkAccessManager manager;
    QNetworkReply* reply = manager.head(QNetworkRequest(url));
    QEventLoop loop;
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    loop.exec();
    const QByteArray etag = reply->rawHeader("ETag");
    delete reply;
    return etag;
}

} // namespace

class TestResumableDownload : public QObject {
    Q_OBJECT

    std::unique_ptr<TestServer> server_;
    std::unique_ptr<QTemporaryDir> temporary_;
    QString root_; // where the downloads folder is
    RecordingSink sink_;
    RecordingObserver observer_;
    int serial_ = 0;

    QString root() const { return root_; }
    DownloadsFolder::Partial files() const {
        return DownloadsFolder(FileManager::defaultManager(), root())
            .prepare(QStringLiteral("macos-arm64"), QStringLiteral("ab").repeated(32));
    }
    // The fault server's `path`, asked for by this test function alone: what other tests asked
    // for does not count, even when Qt sends it once more after they have ended.
    QUrl fault(const QString& path) const {
        return QUrl(QStringLiteral("http://127.0.0.1:%1/fault/%2?%3")
                        .arg(server_->faultServer().port())
                        .arg(path, QString::fromLatin1(QTest::currentTestFunction())));
    }
    // The ranges asked for `url`, each once, in the order of its first request. The download asks
    // each only once it has the answer to the one before, and the copies Qt sometimes sends again
    // by itself, on connections of their own, repeat one of those and may be read after later
    // requests.
    QList<QByteArray> triesFor(const QUrl& url) const {
        QList<QByteArray> tries;
        for (const QByteArray& range : server_->faultServer().rangesAskedFor(
                 url.toEncoded(QUrl::RemoveScheme | QUrl::RemoveAuthority)))
            if (!tries.contains(range))
                tries.append(range);
        return tries;
    }
    // A fresh file of `size` random bytes on the server; its path there.
    QString publish(qint64 size, QByteArray* bytes) {
        const QString path = QStringLiteral("/file-%1.bin").arg(++serial_);
        *bytes = TestFiles::randomBytes(int(size), serial_);
        server_->writeFile(path.mid(1), *bytes);
        return path;
    }
    // An earlier attempt that kept `kept` under `validator` for `url`.
    // `total`, when given, is the whole file's size as the earlier attempt learnt it.
    void keep(const QUrl& url, const QByteArray& kept, const QByteArray& validator,
              std::optional<qint64> total = std::nullopt) {
        TestFiles::writeFile(files().archive, kept, 0600);
        QJsonObject record{{QStringLiteral("url"), url.toString(QUrl::FullyEncoded)},
                           {QStringLiteral("validator"), QString::fromLatin1(validator)}};
        if (total)
            record.insert(QStringLiteral("size"), double(*total));
        TestFiles::writeFile(files().validator, QJsonDocument(record).toJson());
    }
    DownloadResult run(const QUrl& url, TransferLimits limits = {}, int resumes = 5) {
        HttpClient client(limits);
        ResumableDownload::Options options{&sink_, &observer_, root(), resumes};
        return awaitResult(ResumableDownload::run(client, FileManager::defaultManager(), url, files(), options));
    }
    std::exception_ptr failureOf(const QUrl& url, TransferLimits limits = {}, int resumes = 5) {
        HttpClient client(limits);
        ResumableDownload::Options options{&sink_, &observer_, root(), resumes};
        return waitForOutcome([](HttpClient& c, QUrl u, DownloadsFolder::Partial f,
                                 ResumableDownload::Options o) -> QCoro::Task<void> {
            co_await ResumableDownload::run(c, FileManager::defaultManager(), u, f, o);
        }(client, url, files(), options));
    }
    static QString textOf(const std::exception_ptr& error) {
        try {
            std::rethrow_exception(error);
        } catch (const std::exception& e) {
            return QString::fromUtf8(e.what());
        }
    }
    void verifyWhole(const DownloadResult& result, const QByteArray& bytes) {
        QCOMPARE(result.statusCode, std::optional<int>(200));
        QCOMPARE(result.sha256Hex, sha256Of(bytes));
        QCOMPARE(TestFiles::readFile(files().archive), bytes);
        QCOMPARE(sink_.afterLastRestart, bytes);
        // Once whole, the file is no longer a download that could go on.
        QVERIFY(!QFileInfo::exists(files().validator));
        QCOMPARE(observer_.ends, 1);
    }

private slots:
    void initTestCase() {
        ZENTHO_REQUIRE(nginx);
        server_ = std::make_unique<TestServer>();
        TestServer::trustInThisProcess();
    }
    void init() {
        temporary_ = std::make_unique<QTemporaryDir>();
        root_ = temporary_->path();
        sink_ = RecordingSink();
        observer_ = RecordingObserver();
    }

    void keptBytesAreReadBackAndTheRestIsAskedFor() {
        QByteArray bytes;
        const QString path = publish(2 * 1024 * 1024, &bytes);
        const QUrl url = server_->url(path);
        keep(url, bytes.left(1024 * 1024), etagOf(url));
        const DownloadResult result = run(url);
        verifyWhole(result, bytes);
        QCOMPARE(sink_.restarts, QList<qsizetype>());
        QCOMPARE(sink_.bytes, bytes); // the kept half first, read back, then the rest
        server_->awaitLogged();
        const QList<TestServer::Served> served = server_->servedFor(path);
        QCOMPARE(served.size(), 1);
        QCOMPARE(served[0].range, QStringLiteral("bytes=1048576-"));
        QCOMPARE(served[0].status, 206);
        QCOMPARE(served[0].bytes, 1024 * 1024);
        // The fraction starts at what was kept.
        QCOMPARE(observer_.reports.first(), std::make_pair(qint64(1024 * 1024), qint64(-1)));
        QCOMPARE(observer_.reports.last(),
                 std::make_pair(qint64(bytes.size()), qint64(bytes.size())));
    }

    // The twin: the file changed on the server since the bytes were kept (its validator no longer
    // matches), so the server sends it whole and the sink starts over.
    void changedFileStartsOverFromZero() {
        QByteArray bytes;
        const QString path = publish(512 * 1024, &bytes);
        const QUrl url = server_->url(path);
        const QByteArray kept = TestFiles::randomBytes(256 * 1024, 99); // not the file's bytes
        keep(url, kept, "\"0-0\"");
        const DownloadResult result = run(url);
        verifyWhole(result, bytes);
        QCOMPARE(sink_.restarts, QList<qsizetype>{kept.size()});
        QCOMPARE(sink_.bytes, kept + bytes);
        server_->awaitLogged();
        const QList<TestServer::Served> served = server_->servedFor(path);
        QCOMPARE(served.size(), 1);
        QCOMPARE(served[0].range, QStringLiteral("bytes=262144-"));
        QCOMPARE(served[0].status, 200);
    }

    void serverIgnoringRangeStartsOver() {
        QByteArray bytes;
        const QString path = publish(256 * 1024, &bytes);
        const QUrl url = server_->url(QStringLiteral("/norange") + path);
        keep(url, bytes.left(100000), etagOf(url));
        const DownloadResult result = run(url);
        verifyWhole(result, bytes);
        QCOMPARE(sink_.restarts, QList<qsizetype>{100000});
        server_->awaitLogged();
        QCOMPARE(server_->servedFor(QStringLiteral("/norange") + path).first().status, 200);
    }

    // More kept than the file holds: the server refuses the range (416) and a plain request
    // follows.
    void unsatisfiableRangeStartsOverWithAPlainRequest() {
        QByteArray bytes;
        const QString path = publish(64 * 1024, &bytes);
        const QUrl url = server_->url(path);
        keep(url, bytes + bytes, etagOf(url));
        const DownloadResult result = run(url);
        verifyWhole(result, bytes);
        server_->awaitLogged();
        const QList<TestServer::Served> served = server_->servedFor(path);
        QCOMPARE(served.size(), 2);
        QCOMPARE(served[0].status, 416);
        QCOMPARE(served[1].range, QString());
        QCOMPARE(served[1].status, 200);
    }

    void droppedConnectionIsResumedWithinTheAttempt() {
        const QUrl url = fault(QStringLiteral("cut/1000000/300000"));
        const DownloadResult result = run(url);
        const QByteArray bytes = FaultServer::cutBody(1000000);
        verifyWhole(result, bytes);
        QCOMPARE(sink_.restarts, QList<qsizetype>());
        // A plain request, then one range after the other, each from further on (a drop may cost
        // what the transport had not handed on yet, never more).
        const QList<QByteArray> ranges = triesFor(url);
        QVERIFY2(ranges.size() >= 4, ranges.join(' ').constData());
        QCOMPARE(ranges.first(), QByteArray());
        qint64 previous = 0;
        for (const QByteArray& range : ranges.mid(1)) {
            QVERIFY2(range.startsWith("bytes=") && range.endsWith('-'),
                     ranges.join(' ').constData());
            const qint64 from = range.mid(6, range.size() - 7).toLongLong();
            QVERIFY2(from > previous && from <= previous + 300000, ranges.join(' ').constData());
            previous = from;
        }
    }

    // The twin: at most five resumes in one attempt. What they brought stays for the next
    // attempt, which goes on from there.
    void resumesWithinAnAttemptAreBounded() {
        const QUrl url = fault(QStringLiteral("cut/1000000/100000"));
        const std::exception_ptr error = failureOf(url);
        QVERIFY(error);
        // A plain request and five ranges.
        const QList<QByteArray> firstAttempt = triesFor(url);
        QVERIFY2(firstAttempt.size() == 6, firstAttempt.join(' ').constData());
        // Six tries of at most 100000 bytes each (a drop may cost what the transport had not
        // handed on yet).
        const qint64 kept = QFileInfo(files().archive).size();
        QVERIFY2(kept > 0 && kept <= 600000, qPrintable(QString::number(kept)));
        QVERIFY(QFileInfo::exists(files().validator));
        // The whole size is kept beside the validator, so the next attempt can tell a resume of
        // another file from the rest of this one.
        const QJsonObject record = QJsonDocument::fromJson(TestFiles::readFile(files().validator)).object();
        QCOMPARE(record.value(QStringLiteral("size")).toDouble(), 1000000.0);

        sink_ = RecordingSink(); // each attempt has its own sink
        const DownloadResult result = run(url);
        const QByteArray bytes = FaultServer::cutBody(1000000);
        QCOMPARE(result.sha256Hex, sha256Of(bytes));
        QCOMPARE(sink_.bytes, bytes); // the kept bytes read back, then the rest
        const QList<QByteArray> secondAttempt = triesFor(url).mid(firstAttempt.size());
        QVERIFY2(!secondAttempt.isEmpty(), triesFor(url).join(' ').constData());
        QCOMPARE(secondAttempt.first(), "bytes=" + QByteArray::number(kept) + '-');
        QCOMPARE(sink_.afterLastRestart, bytes);
    }

    // A resume that brings no byte is not tried again: the attempt ends, keeping what it has.
    void resumeThatAddsNothingEndsTheAttempt() {
        const QUrl url = fault(QStringLiteral("stuck/1000000/300000"));
        QVERIFY(failureOf(url));
        // A plain request, then one range from where the file ends (a drop may cost what the
        // transport had not handed on yet), then nothing more.
        const qint64 kept = QFileInfo(files().archive).size();
        QVERIFY(kept > 0 && kept <= 300000);
        QCOMPARE(triesFor(url),
                 (QList<QByteArray>{QByteArray(), "bytes=" + QByteArray::number(kept) + '-'}));
    }

    // The earlier attempt learnt the file's whole size; a resume answered for a file of that size
    // goes on from the kept bytes.
    void resumeOfTheKeptSizeGoesOn() {
        QByteArray bytes;
        const QString path = publish(600 * 1024, &bytes);
        const QUrl url = server_->url(path);
        keep(url, bytes.left(200 * 1024), etagOf(url), bytes.size());
        const DownloadResult result = run(url);
        verifyWhole(result, bytes);
        QCOMPARE(sink_.restarts, QList<qsizetype>());
        server_->awaitLogged();
        const QList<TestServer::Served> served = server_->servedFor(path);
        QCOMPARE(served.size(), 1);
        QCOMPARE(served[0].status, 206);
    }

    // The twin: a 206 whose total is not the size the kept bytes came from belongs to another
    // file under the same validator. It is not spliced on, and nothing is asked past its end: the
    // download starts over with a plain request at once.
    void resumeOfAnotherSizeStartsOverAtOnce() {
        QByteArray bytes;
        const QString path = publish(600 * 1024, &bytes);
        const QUrl url = server_->url(path);
        keep(url, bytes.left(200 * 1024), etagOf(url), 2 * bytes.size());
        const DownloadResult result = run(url);
        verifyWhole(result, bytes);
        QVERIFY(!sink_.restarts.isEmpty());
        QCOMPARE(sink_.restarts.first(), 200 * 1024); // the kept bytes were let go
        server_->awaitLogged();
        const QList<TestServer::Served> served = server_->servedFor(path);
        QCOMPARE(served.size(), 2);
        QCOMPARE(served[0].range, QStringLiteral("bytes=204800-"));
        QCOMPARE(served[1].range, QString());
        QCOMPARE(served[1].status, 200);
    }

    // A 206 for another range than the one asked for is never spliced on: the download starts over.
    void rangeThatDoesNotFitStartsOverWithAPlainRequest() {
        const QUrl url = fault(QStringLiteral("misplaced/1000000/0"));
        const QByteArray bytes = FaultServer::cutBody(1000000);
        keep(url, bytes.left(300000), "\"cut-1000000\"");
        const DownloadResult result = run(url);
        verifyWhole(result, bytes);
        QCOMPARE(triesFor(url), (QList<QByteArray>{QByteArray("bytes=300000-"), QByteArray()}));
        QCOMPARE(sink_.afterLastRestart, bytes);
    }

    // Without a validator no range can be asked safely: a cut body is not kept.
    void bodyWithoutValidatorIsNotKept() {
        const std::exception_ptr error = failureOf(fault(QStringLiteral("longer/200000/100000")));
        QVERIFY(error);
        QVERIFY(!QFileInfo::exists(files().archive));
        QVERIFY(!QFileInfo::exists(files().validator));
        QCOMPARE(observer_.ends, 1);
    }

    void answerThatIsNotTheArchiveKeepsNothing() {
        const DownloadResult result = run(server_->url(QStringLiteral("/status/404/nothing")));
        QCOMPARE(result.statusCode, std::optional<int>(404));
        QVERIFY(!QFileInfo::exists(files().archive));
        QCOMPARE(sink_.bytes, QByteArray());
    }

    // Before a byte of the body lands there must be room for it, for unpacking it and for the
    // reserve; the error names the folder and both sizes. The disk is the test's own, so its free
    // space is what the test says.
    void shortDiskIsFoundBeforeTheBody() {
        ZENTHO_REQUIRE(root);
        const SmallDisk disk(64);
        QVERIFY(!disk.path().isEmpty());
        root_ = disk.path();
        QByteArray bytes;
        const QString path = publish(1024 * 1024, &bytes);
        TransferLimits limits;
        limits.freeSpaceReserve = FreeSpace::available(root()) - 1024 * 1024;
        const std::exception_ptr error = failureOf(server_->url(path), limits);
        const QString text = textOf(error);
        QVERIFY2(
            QRegularExpression(QStringLiteral("^Not enough free space in ") +
                               QRegularExpression::escape(root()) +
                               QStringLiteral(": [0-9.]+ [kMGT]B needed, [0-9.]+ [kMGT]B free\\.$"))
                .match(text)
                .hasMatch(),
            qPrintable(text));
        QVERIFY(!QFileInfo::exists(files().archive));
        QCOMPARE(sink_.bytes, QByteArray());
    }

    // The twin: with room to spare, the same file arrives.
    void diskWithRoomTakesTheBody() {
        ZENTHO_REQUIRE(root);
        const SmallDisk disk(64);
        QVERIFY(!disk.path().isEmpty());
        root_ = disk.path();
        QByteArray bytes;
        const QString path = publish(1024 * 1024, &bytes);
        TransferLimits limits;
        limits.freeSpaceReserve = FreeSpace::available(root()) - 4 * 1024 * 1024;
        verifyWhole(run(server_->url(path), limits), bytes);
    }

    // A body without a length that would eat into the reserve stops, and its file goes.
    void bodyReachingTheReserveStopsAndIsRemoved() {
        ZENTHO_REQUIRE(root);
        const SmallDisk disk(64);
        QVERIFY(!disk.path().isEmpty());
        root_ = disk.path();
        TransferLimits limits;
        limits.freeSpaceReserve = FreeSpace::available(root()) - 16 * 1024 * 1024;
        const std::exception_ptr error =
            failureOf(fault(QStringLiteral("chunked/268435456")), limits);
        QVERIFY(error);
        try {
            std::rethrow_exception(error);
        } catch (const DiskSpaceError& e) {
            QCOMPARE(QString::fromUtf8(e.what()),
                     QStringLiteral("Not enough free disk space for the download."));
        } catch (...) {
            QFAIL(qPrintable(textOf(error)));
        }
        QVERIFY(!QFileInfo::exists(files().archive));
    }

    void cleanupTestCase() { server_.reset(); }
};

QTEST_MAIN(TestResumableDownload)
#include "TestResumableDownload.moc"

