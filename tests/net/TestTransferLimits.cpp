// What a server may cost the launcher: the cap on a manifest's body, the deadline of a manifest
// fetch, and the limits on an archive's body (its announced size and the free-space reserve).
// Each limit is met with a smaller value than the product's so that it is reached in a moment;
// the product's own values are proved on the real launcher in tests/e2e/TestHostileServers.

#include "FaultServer.h"
#include "ResidentMemory.h"
#include "ShortLimits.h"
#include "SmallDisk.h"
#include "TaskOutcome.h"
#include "TestFiles.h"
#include "TestRequirements.h"
#include "TestServer.h"

#include "net/DownloadsFolder.h"
#include "net/FreeSpace.h"
#include "net/HttpClient.h"
#include "net/ResumableDownload.h"
#include "net/TransferText.h"
#include "platform/FileManager.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTest>

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

namespace {

// Runs one transfer to its end; the result, or the NetworkError's text in `error`.
template <typename T>
std::optional<T> settle(QCoro::Task<T> task, QString* error) {
    try {
        return awaitResult(std::move(task));
    } catch (const NetworkError& e) {
        *error = QString::fromStdString(e.what());
    }
    return std::nullopt;
}

QString fetchError(const TransferLimits& limits, const QUrl& url) {
    HttpClient client(limits);
    QString error;
    settle(client.data(url), &error);
    return error;
}

// An archive download into the downloads folder under `root`: the file it leaves, or what it
// threw in `error`.
QCoro::Task<QByteArray> downloadTask(HttpClient& client, QUrl url, DownloadsFolder::Partial files,
                                     QString root) {
    const ResumableDownload::Options options{nullptr, nullptr, root, 5};
    const DownloadResult result = co_await ResumableDownload::run(client, FileManager::defaultManager(), url, files, options);
    if (result.statusCode != std::optional<int>(200))
        throw std::runtime_error("status " + std::to_string(result.statusCode.value_or(-1)));
    co_return TestFiles::readFile(files.archive);
}

std::optional<QByteArray> downloadInto(const QString& root, const TransferLimits& limits,
                                       const QUrl& url, QString* error) {
    HttpClient client(limits);
    const DownloadsFolder::Partial files = DownloadsFolder(FileManager::defaultManager(), root)
                                               .prepare(QStringLiteral("macos-arm64"), url.toString());
    try {
        return awaitResult(downloadTask(client, url, files, root));
    } catch (const std::exception& e) {
        *error = QString::fromUtf8(e.what());
    }
    return std::nullopt;
}

HttpResponse fetch(const TransferLimits& limits, const QUrl& url) {
    HttpClient client(limits);
    QString error;
    std::optional<HttpResponse> response = settle(client.data(url), &error);
    if (!response)
        throw NetworkError(error);
    return std::move(*response);
}

QStringList entriesOf(const QString& folder) {
    return QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
}

} // namespace

class TestTransferLimits : public QObject {
    Q_OBJECT

    // The storage root whose downloads folder archives go to.
    QTemporaryDir temp;
    std::unique_ptr<TestServer> server;
    QByteArray manifest = "{\"version\":\"0.4.2\"}";
    TransferLimits product; // the product's own limits

    QByteArray download(const TransferLimits& limits, const QUrl& url) {
        QString error;
        const std::optional<QByteArray> bytes = downloadInto(temp.path(), limits, url, &error);
        if (!bytes)
            throw std::runtime_error(error.toStdString());
        return *bytes;
    }
    static QString downloadError(const QString& root, const TransferLimits& limits,
                                 const QUrl& url) {
        QString error;
        downloadInto(root, limits, url, &error);
        return error;
    }

    QUrl fault(const QString& path) const {
        return QUrl(QStringLiteral("http://127.0.0.1:%1/fault/%2").arg(server->faultServer().port()).arg(path));
    }

private slots:
    void initTestCase() {
        ZENTHO_REQUIRE(nginx);
        QVERIFY(temp.isValid());
        server = std::make_unique<TestServer>();
        TestServer::trustInThisProcess();
        server->writeFile(QStringLiteral("m.json"), manifest);
        server->writeFile(QStringLiteral("big.bin"), TestFiles::randomBytes(1024 * 1024, 7));
    }

    void manifestAtTheCapArrivesWhole() {
        TransferLimits limits;
        limits.maximumManifestBytes = 64 * 1024;
        const QByteArray body = TestFiles::randomBytes(64 * 1024, 7);
        server->writeFile(QStringLiteral("cap.bin"), body);
        const HttpResponse response = fetch(limits, server->url("/cap.bin"));
        QCOMPARE(response.statusCode, std::optional<int>(200));
        QCOMPARE(response.body, body);
        // The product's cap lets a whole mebibyte through, announced or chunked.
        QCOMPARE(fetch(product, server->url("/big.bin")).body.size(), 1024 * 1024);
        QCOMPARE(fetch(product, fault(QStringLiteral("chunked/1048576"))).body.size(), 1024 * 1024);
    }

    void manifestOverTheCapIsATransportError() {
        TransferLimits limits;
        limits.maximumManifestBytes = 64 * 1024;
        server->writeFile(QStringLiteral("cap-plus-one.bin"), TestFiles::randomBytes(64 * 1024 + 1, 7));
        // Announced by its Content-Length, or only found out while a chunked body streams.
        for (const QUrl& url : {server->url("/cap-plus-one.bin"), fault(QStringLiteral("chunked/65537"))}) {
            const QString error = fetchError(limits, url);
            QVERIFY2(error == QStringLiteral("The manifest is larger than 64 KiB."),
                     qPrintable(url.toString() + ": " + error));
        }
        QCOMPARE(fetchError(product, fault(QStringLiteral("chunked/1048577"))),
                 QStringLiteral("The manifest is larger than 1 MiB."));
    }

    // 64 MiB of chunked body against the product's cap: refused, with memory flat.
    void bloatedManifestKeepsMemoryFlat() {
        ResidentMemory::resetPeak();
        const long before = ResidentMemory::peakKiB();
        const QString error = fetchError(product, fault(QStringLiteral("chunked/67108864")));
        const long grown = ResidentMemory::peakKiB() - before;
        qInfo("peak grew by %ld KiB", grown);
        QVERIFY2(error.contains(QStringLiteral("larger than")), qPrintable(error));
        // Well under the body's size; the margin is for sanitizer builds, which hold freed blocks
        // in quarantine for a while.
        QVERIFY2(grown < 32 * 1024, qPrintable(QStringLiteral("peak grew by %1 KiB").arg(grown)));
    }

    // 1 MiB at 4 KiB/s: above the throughput floor, and far longer than the deadline.
    void manifestFetchEndsAtItsDeadline() {
        server->writeFile(QStringLiteral("slow.json"), QByteArray(1024 * 1024, ' '));
        const TransferLimits limits =
            onlyShort([](TransferWatchdog::Limits& l) { l.deadline = std::chrono::seconds(1); });
        QCOMPARE(fetchError(limits, server->url("/trickle/slow.json")),
                 QStringLiteral("The server did not send its whole answer in time."));
    }

    // The twin: a manifest that comes within the deadline arrives, from the same slow server.
    void manifestWithinItsDeadlineArrives() {
        QCOMPARE(fetch(product, server->url("/trickle/m.json")).body, manifest);
    }

    // The same limits that end a manifest from a trickle after a second take a slow archive whole:
    // downloads have no deadline.
    void archiveDownloadHasNoOverallDeadline() {
        TransferLimits limits;
        limits.manifest.deadline = std::chrono::seconds(1);
        server->writeFile(QStringLiteral("slow.json"), QByteArray(1024 * 1024, ' '));
        QCOMPARE(fetchError(limits, server->url("/trickle/slow.json")),
                 QStringLiteral("The server did not send its whole answer in time."));
        const QByteArray body = TestFiles::randomBytes(16 * 1024, 7);
        server->writeFile(QStringLiteral("slow.tar.gz"), body);
        QCOMPARE(download(limits, server->url("/trickle/slow.tar.gz")), body);
    }

    // On a disk of the test's own, so the free space is what the test says, whatever else the
    // machine writes meanwhile.
    void archiveStopsAtTheFreeSpaceReserve() {
        ZENTHO_REQUIRE(root);
        SmallDisk disk(64);
        QVERIFY(!disk.path().isEmpty());
        TransferLimits limits;
        limits.freeSpaceReserve = FreeSpace::available(disk.path()) - 16 * 1024 * 1024;
        // Far more than fits above the reserve, and it does end, so a download that ignored the
        // reserve would come back whole (or fail with the disk full).
        const QString error =
            downloadError(disk.path(), limits, fault(QStringLiteral("chunked/268435456")));
        QCOMPARE(error, QStringLiteral("Not enough free disk space for the download."));
        QCOMPARE(entriesOf(disk.path() + QStringLiteral("/downloads")), QStringList());
    }

    // A body whose announced size would leave less than the reserve is refused before it lands,
    // naming the folder and both sizes.
    void archiveAnnouncedBeyondTheReserveIsRefused() {
        ZENTHO_REQUIRE(root);
        SmallDisk disk(64);
        QVERIFY(!disk.path().isEmpty());
        const qint64 free = FreeSpace::available(disk.path());
        TransferLimits limits;
        limits.freeSpaceReserve = free - 512 * 1024;
        const QString error = downloadError(disk.path(), limits, server->url("/big.bin"));
        // Room to download the 1 MiB and to unpack it, on the one disk, and the reserve.
        QCOMPARE(error, QStringLiteral("Not enough free space in %1: %2 needed, %3 free.")
                            .arg(disk.path(),
                                 TransferText::size(2 * 1024 * 1024 + limits.freeSpaceReserve),
                                 TransferText::size(free)));
        QCOMPARE(entriesOf(disk.path() + QStringLiteral("/downloads")), QStringList());
    }

    void archiveWithinTheReserveArrives() {
        QCOMPARE(download(product, fault(QStringLiteral("chunked/4194304"))).size(), 4 * 1024 * 1024);
    }

    // Bytes past the announced length never reach the file: the body ends where it said it would.
    void archiveKeepsNoMoreThanItsContentLength() {
        QCOMPARE(download(product, fault(QStringLiteral("longer/1000/2000000"))).size(), 1000);
    }

    void cleanupTestCase() {
        server.reset();
    }
};

QTEST_MAIN(TestTransferLimits)
#include "TestTransferLimits.moc"
