// What a full game install costs next to the plain shell way of doing the same work. One run
// serves a generated build over loopback HTTPS from a real nginx and, for each archive size,
// compares our install (download with the digest and the listing computed on the way, extract,
// record) with `curl -o file && sha256sum file && tar -xzf file -C dir` on the same archive, and
// reports this process's peak resident size during the install. Then the same over a link that
// nginx throttles to 50 MiB/s, where the baseline is `curl` at that rate plus `tar -xzf`: the
// link is the limit there, and the install should cost little beyond it.
//
// The build's payload is random bytes, like the already-compressed assets that make up most of a
// real game, so gzip cannot shrink it and every stage handles the full size. The stage lines
// show where the time goes, for the shell's commands, for our install as it was (the literal
// `tar -tzf` and `tar -xzf` runs after the download) and as it is (listing while the body
// arrives, extracting through igzip).
//
//   BenchInstall            512 MiB and 1 GiB on loopback, 512 MiB throttled
//   BenchInstall 64 256     other sizes, in MiB; the smallest is also run throttled

#include "LauncherModelProbe.h"
#include "RecordingPlatform.h"
#include "ResidentMemory.h"
#include "ScopedDataHome.h"
#include "TaskOutcome.h"
#include "TestArchives.h"
#include "TestFiles.h"
#include "TestServer.h"

#include "archive/Archive.h"
#include "archive/ArchiveExtraction.h"
#include "archive/StreamedListing.h"
#include "model/LauncherModel.h"
#include "net/HttpClient.h"
#include "platform/FileManager.h"
#include "update/ManifestFetch.h"
#include "update/VerifiedDownload.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>

namespace {

const qint64 kMiB = 1024 * 1024;

bool runShell(const QString& script) {
    QProcess shell;
    shell.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    shell.setStandardOutputFile(QProcess::nullDevice());
    shell.start(QStringLiteral("/bin/sh"), {QStringLiteral("-c"), script});
    return shell.waitForFinished(-1) && shell.exitStatus() == QProcess::NormalExit &&
           shell.exitCode() == 0;
}

QString quoted(const QString& text) {
    QString inner = text;
    inner.replace(QLatin1Char('\''), QStringLiteral("'\\''"));
    return QLatin1Char('\'') + inner + QLatin1Char('\'');
}

double secondsSince(const QElapsedTimer& clock) {
    return clock.nsecsElapsed() / 1e9;
}

struct InstallRun {
    double seconds = -1;
    long peakKiB = -1;
    long startKiB = -1;
};

InstallRun installOnce(const ReleaseManifest& manifest, const QString& scratch) {
    ScopedDataHome home;
    qputenv("TMPDIR", QFile::encodeName(scratch));
    RecordingPlatform platform;
    LauncherModel model(platform);
    ResidentMemory::resetPeak();
    InstallRun run;
    run.startKiB = ResidentMemory::currentKiB();
    QElapsedTimer clock;
    clock.start();
    const std::exception_ptr error = waitForOutcome(
        [](LauncherModel& m, ReleaseManifest r) -> QCoro::Task<void> {
            co_await LauncherModelProbe::install(m, r);
        }(model, manifest));
    const double seconds = secondsSince(clock);
    run.peakKiB = ResidentMemory::peakKiB();
    const QString executable = home.versionsRoot() + QLatin1Char('/') + manifest.version +
                               QStringLiteral("/zentho");
    if (!error && QFileInfo(executable).isExecutable() && model.installedVersion() == manifest.version)
        run.seconds = seconds;
    return run;
}

// The shell's way: curl, then (when `digest`) sha256sum, then tar -xzf.
double shellOnce(const QUrl& url, const QString& scratch, bool digest) {
    QTemporaryDir work(scratch + QStringLiteral("/shell-XXXXXX"));
    const QString file = work.filePath(QStringLiteral("build.tar.gz"));
    const QString dir = work.filePath(QStringLiteral("build"));
    QDir().mkpath(dir);
    QElapsedTimer clock;
    clock.start();
    const bool ok = runShell(QStringLiteral("curl -sS --cacert %1 -o %2 %3 && %5 tar -xzf %2 -C %4")
                                 .arg(quoted(TestServer::caPath()), quoted(file),
                                      quoted(url.toString()), quoted(dir),
                                      digest ? QStringLiteral("sha256sum %1 &&").arg(quoted(file))
                                             : QString()));
    const double seconds = secondsSince(clock);
    return ok && QFileInfo(dir + QStringLiteral("/zentho")).isExecutable() ? seconds : -1;
}

// Seconds one shell command takes, or -1 when it fails.
double timedShell(const QString& script) {
    QElapsedTimer clock;
    clock.start();
    const bool ok = runShell(script);
    return ok ? secondsSince(clock) : -1;
}

void printStage(const char* name, long long mib, double seconds) {
    std::printf("stage_%s_%lld_mib_seconds: %.2f\n", name, mib, seconds);
}

// The shell's stages on their own, the archive already in the page cache.
void printShellStages(long long mib, const QUrl& url, const QString& archive,
                      const QString& scratch) {
    QTemporaryDir work(scratch + QStringLiteral("/stages-XXXXXX"));
    const QString copy = quoted(work.filePath(QStringLiteral("copy.tar.gz")));
    const QString into = quoted(work.path());
    const QString source = quoted(archive);
    printStage("curl", mib, timedShell(QStringLiteral("curl -sS --cacert %1 -o %2 %3")
                                            .arg(quoted(TestServer::caPath()), copy,
                                                 quoted(url.toString()))));
    printStage("sha256sum", mib, timedShell(QStringLiteral("sha256sum %1").arg(source)));
    printStage("tar_list", mib, timedShell(QStringLiteral("tar -tzf %1").arg(source)));
    printStage("tar_extract", mib, timedShell(QStringLiteral("tar -xzf %1 -C %2").arg(source, into)));
}

struct Stages {
    double download = -1; // download and digest, with the streamed listing fed when there is one
    double list = -1;     // from the digest to the listing in hand
    double extract = -1;
};

// Our install's stages, through the same routines the install uses: `streamed` as it is now,
// otherwise as it was (the literal tar runs after the download).
QCoro::Task<Stages> ourStages(ReleaseManifest manifest, QString scratch, bool streamed) {
    Stages stages;
    QTemporaryDir work(scratch + QStringLiteral("/ours-XXXXXX"));
    QElapsedTimer clock;
    clock.start();
    StreamedListing listing;
    // Named, not a braced temporary in the co_await: g++ 12 destroys such a temporary twice.
    const ArchiveDownload where{scratch, ManifestKind::game().platform,
                                streamed ? &listing : nullptr, nullptr};
    HttpClient http;
    const DownloadedFile archive = co_await downloadVerifiedArchive(http, FileManager::defaultManager(),
                                                                    manifest.url, manifest.sha256, where);
    stages.download = secondsSince(clock);
    clock.restart();
    // (No co_await inside a conditional expression: g++ 12 miscompiles that.)
    QString names;
    if (streamed)
        names = co_await listing.listingOf(archive.path());
    else
        names = co_await runTarWithoutBlocking(listArguments(archive.path()));
    checkArchiveListing(names);
    stages.list = secondsSince(clock);
    clock.restart();
    if (streamed)
        co_await extractArchive(FileManager::defaultManager(), archive.path(), work.path());
    else
        co_await runTarWithoutBlocking(extractArguments(archive.path(), work.path()));
    stages.extract = secondsSince(clock);
    co_return stages;
}

void printOurStages(long long mib, const ReleaseManifest& manifest, const QString& scratch) {
    qputenv("TMPDIR", QFile::encodeName(scratch));
    for (const bool streamed : {false, true}) {
        const Stages stages = awaitResult(ourStages(manifest, scratch, streamed));
        printStage(streamed ? "ours_download_hash_and_list" : "before_download_hash", mib,
                   stages.download);
        printStage(streamed ? "ours_list_after_digest" : "before_tar_list", mib, stages.list);
        printStage(streamed ? "ours_extract" : "before_tar_extract", mib, stages.extract);
    }
}

double median(QList<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// Makes a build archive of `size` random bytes on the server; returns its path or nothing.
QString makeArchive(TestServer& server, const QString& scratch, qint64 size) {
    const long long mib = size / kMiB;
    const QString tree = scratch + QStringLiteral("/tree");
    TestFiles::makeBuild(tree);
    const QString archive = server.writeFile(QStringLiteral("build-%1.tar.gz").arg(mib), {});
    if (!runShell(QStringLiteral("head -c %1 /dev/urandom > %2/assets.pak && "
                                 "tar -C %2 -cf - zentho assets.pak | gzip -1 > %3 && "
                                 "rm -rf %2 && cat %3 > /dev/null")
                      .arg(size)
                      .arg(quoted(tree), quoted(archive))))
        return {};
    return archive;
}

// Installs and runs the baseline alternately, so that neither profits from a warmer machine, and
// returns the medians; the peak resident size of the installs goes to `peakKiB`.
bool compare(const ReleaseManifest& manifest, const QString& scratch, bool digest, int rounds,
             double& ours, double& shell, long& peakKiB, long& startKiB) {
    QList<double> install, baseline;
    for (int round = 0; round < rounds; ++round) {
        const InstallRun run = installOnce(manifest, scratch);
        const double plain = shellOnce(manifest.url, scratch, digest);
        if (run.seconds < 0 || plain < 0)
            return false;
        install << run.seconds;
        baseline << plain;
        peakKiB = std::max(peakKiB, run.peakKiB);
        startKiB = run.startKiB;
    }
    ours = median(install);
    shell = median(baseline);
    return true;
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QList<qint64> sizes;
    for (int i = 1; i < argc; ++i)
        sizes << QByteArray(argv[i]).toLongLong() * kMiB;
    if (sizes.isEmpty())
        sizes = {512 * kMiB, 1024 * kMiB};
    const qint64 throttledSize = *std::min_element(sizes.cbegin(), sizes.cend());

    QTemporaryDir scratch;
    TestServer server;
    TestServer::trustInThisProcess();
    bool allOk = true;

    for (const qint64 size : sizes) {
        const long long mib = size / kMiB;
        const QString archive = makeArchive(server, scratch.path(), size);
        if (archive.isEmpty()) {
            std::fprintf(stderr, "could not make the %lld MiB archive\n", mib);
            return 1;
        }
        const QString name = QStringLiteral("/build-%1.tar.gz").arg(mib);
        ReleaseManifest manifest{QStringLiteral("9.%1.0").arg(mib), QStringLiteral("macos-arm64"),
                                 server.url(name), TestArchives::sha256sum(archive),
                                 QStringLiteral("zentho")};

        const int rounds = size > 512 * kMiB ? 1 : 3;
        double ours = 0, shell = 0;
        long peak = 0, start = 0;
        if (!compare(manifest, scratch.path(), true, rounds, ours, shell, peak, start)) {
            std::fprintf(stderr, "the %lld MiB install or its baseline failed\n", mib);
            return 1;
        }
        const double ratio = ours / shell;
        std::printf("install_%lld_mib_seconds: %.2f (median of %d)\n", mib, ours, rounds);
        std::printf("curl_sha256sum_tar_%lld_mib_seconds: %.2f (median of %d)\n", mib, shell,
                    rounds);
        std::printf("install_%lld_mib_ratio_to_shell: %.2f (target <= 1.0, stretch 0.8)\n", mib,
                    ratio);
        std::printf("install_%lld_mib_peak_rss: %.1f MiB (resident at start %.1f MiB; target <= 64 "
                    "MiB for 1 GiB)\n",
                    mib, peak / 1024.0, start / 1024.0);
        printShellStages(mib, manifest.url, archive, scratch.path());
        printOurStages(mib, manifest, scratch.path());
        allOk = allOk && ratio <= 1.0 && (size < 1024 * kMiB || peak <= 64 * 1024);

        if (size == throttledSize) {
            manifest.url = server.url(QStringLiteral("/rate50m") + name);
            manifest.version = QStringLiteral("8.%1.0").arg(mib);
            if (!compare(manifest, scratch.path(), false, 1, ours, shell, peak, start)) {
                std::fprintf(stderr, "the throttled %lld MiB install or its baseline failed\n", mib);
                return 1;
            }
            std::printf("install_50_mib_per_s_%lld_mib_seconds: %.2f\n", mib, ours);
            std::printf("curl_50_mib_per_s_tar_%lld_mib_seconds: %.2f\n", mib, shell);
            std::printf("install_50_mib_per_s_%lld_mib_ratio_to_link: %.2f (target <= 1.05)\n", mib,
                        ours / shell);
            allOk = allOk && ours / shell <= 1.05;
        }
        QFile::remove(archive);
    }
    return allOk ? 0 : 2;
}
