// How much memory a large archive download costs. The body streams to its file in the downloads
// folder while it is hashed, so the peak resident size should grow by a small, fixed amount
// whatever the size of the archive. Also prints the throughput over loopback TLS from a real nginx.

#include "ResidentMemory.h"
#include "TaskOutcome.h"
#include "TestServer.h"

#include "net/DownloadsFolder.h"
#include "net/HttpClient.h"
#include "net/ResumableDownload.h"
#include "platform/FileManager.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <QCoroTask>

#include <cstdio>
#include <exception>
#include <optional>

namespace {

QCoro::Task<void> downloadInto(QUrl url, DownloadsFolder::Partial files, QString root,
                               std::optional<DownloadResult>* result) {
    const ResumableDownload::Options options{nullptr, nullptr, root, 5};
    HttpClient client;
    result->emplace(co_await ResumableDownload::run(client, FileManager::defaultManager(), url, files, options));
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QTemporaryDir storage;
    const DownloadsFolder folder(FileManager::defaultManager(), storage.path());
    TestServer server;
    TestServer::trustInThisProcess();

    const qint64 mib = 1024 * 1024;
    for (const qint64 size : {16 * mib, 256 * mib}) {
        const QString name = QStringLiteral("archive-%1.bin").arg(size);
        const QString path = server.writeFile(name, QByteArray());
        QFile::resize(path, size); // sparse: costs no disk on the server side

        std::optional<DownloadResult> file;
        const DownloadsFolder::Partial files = folder.prepare(QStringLiteral("macos-arm64"), name);
        ResidentMemory::resetPeak();
        const long before = ResidentMemory::peakKiB();
        QElapsedTimer clock;
        clock.start();
        const std::exception_ptr error =
            waitForOutcome(downloadInto(server.url(QLatin1Char('/') + name), files, storage.path(),
                                        &file));
        const double seconds = clock.elapsed() / 1000.0;
        const long peak = ResidentMemory::peakKiB();
        if (error || !file || QFileInfo(files.archive).size() != size) {
            std::fprintf(stderr, "download of %lld bytes failed\n", static_cast<long long>(size));
            return 1;
        }
        std::printf("download_%lld_mib_seconds: %.2f (%.0f MiB/s)\n",
                    static_cast<long long>(size / mib), seconds, double(size / mib) / seconds);
        std::printf("download_%lld_mib_peak_rss_growth: %ld KiB (before %ld KiB, peak %ld KiB)\n",
                    static_cast<long long>(size / mib), peak - before, before, peak);
        QFile::remove(path);
        QFile::remove(files.archive);
    }
    return 0;
}
