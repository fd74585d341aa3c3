// What resuming an interrupted download saves: an archive whose first attempt was cut off at
// half (its connection dropped, no resume allowed in that attempt) is finished by a second
// attempt, side by side with the same archive downloaded whole. Prints the bytes each fetched,
// the bytes saved and the times, over loopback TLS from a real nginx (the cut is the fault
// server's, behind the same nginx).

#include "FaultServer.h"
#include "TaskOutcome.h"
#include "TestFiles.h"
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

#include <cstdio>

namespace {

QCoro::Task<void> attempt(QUrl url, DownloadsFolder::Partial files, QString root, int resumes) {
    const ResumableDownload::Options options{nullptr, nullptr, root, resumes};
    HttpClient client;
    co_await ResumableDownload::run(client, FileManager::defaultManager(), url, files, options);
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    TestServer server;
    TestServer::trustInThisProcess();
    QTemporaryDir storage;
    const DownloadsFolder folder(FileManager::defaultManager(), storage.path());

    const qint64 size = 64 * 1000 * 1000;
    server.writeFile(QStringLiteral("archive.bin"), TestFiles::randomBytes(size, 11));

    // Whole, in one go.
    const DownloadsFolder::Partial whole =
        folder.prepare(QStringLiteral("macos-arm64"), QStringLiteral("whole"));
    const qint64 sentBefore = server.faultServer().bytesSent();
    QElapsedTimer clock;
    clock.start();
    if (waitForOutcome(attempt(server.url(QStringLiteral("/fault/cutfile/0/archive.bin")), whole,
                               storage.path(), 5))) {
        std::fprintf(stderr, "whole download failed\n");
        return 1;
    }
    const double wholeSeconds = clock.elapsed() / 1000.0;
    const qint64 wholeBytes = server.faultServer().bytesSent() - sentBefore;
    QFile::remove(whole.archive);

    // Cut at half, then resumed by the next attempt.
    const DownloadsFolder::Partial cut =
        folder.prepare(QStringLiteral("macos-arm64"), QStringLiteral("cut"));
    const QUrl url = server.url(QStringLiteral("/fault/cutfile/%1/archive.bin").arg(size / 2));
    waitForOutcome(attempt(url, cut, storage.path(), 0)); // fails by design: the connection drops
    const qint64 kept = QFileInfo(cut.archive).size();
    const qint64 beforeResume = server.faultServer().bytesSent();
    clock.restart();
    if (waitForOutcome(attempt(url, cut, storage.path(), 5)) ||
        QFileInfo(cut.archive).size() != size) {
        std::fprintf(stderr, "resumed download failed\n");
        return 1;
    }
    const double resumedSeconds = clock.elapsed() / 1000.0;
    const qint64 resumedBytes = server.faultServer().bytesSent() - beforeResume;

    std::printf("archive_bytes: %lld\n", static_cast<long long>(size));
    std::printf("whole_download_bytes_fetched: %lld (%.2f s)\n", static_cast<long long>(wholeBytes),
                wholeSeconds);
    std::printf(
        "resumed_attempt_bytes_fetched: %lld (%.2f s, %lld bytes kept from the cut attempt)\n",
        static_cast<long long>(resumedBytes), resumedSeconds, static_cast<long long>(kept));
    std::printf("resume_bytes_saved: %lld (%.1f%% of the archive)\n",
                static_cast<long long>(wholeBytes - resumedBytes),
                100.0 * double(wholeBytes - resumedBytes) / double(size));
    std::printf("resume_time_ratio: %.2f (resumed attempt / whole download)\n",
                resumedSeconds / wholeSeconds);
    return 0;
}
