// What a full game install costs next to the plain shell way of doing the same work. One run
// serves a generated build over loopback HTTPS from a real nginx and, for each archive size,
// compares our install (download with the digest computed on the way, list, extract, record)
// with `curl -o file && sha256sum file && tar -xzf file -C dir` on the same archive, and reports
// this process's peak resident size during the install.
//
// The build's payload is random bytes, like the already-compressed assets that make up most of a
// real game, so gzip cannot shrink it and every stage handles the full size. The stage lines
// show where the difference comes from: our install lists the archive with tar before extracting
// it, a full extra decompression, while the digest costs nothing extra because it is computed as
// the body arrives.
//
//   BenchInstall            512 MiB and 1 GiB
//   BenchInstall 64 256     other sizes, in MiB

#include "LauncherModelProbe.h"
#include "RecordingPlatform.h"
#include "ResidentMemory.h"
#include "ScopedDataHome.h"
#include "TaskOutcome.h"
#include "TestArchives.h"
#include "TestFiles.h"
#include "TestServer.h"

#include "model/LauncherModel.h"

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
    const double seconds = clock.nsecsElapsed() / 1e9;
    run.peakKiB = ResidentMemory::peakKiB();
    const QString executable = home.versionsRoot() + QLatin1Char('/') + manifest.version +
                               QStringLiteral("/zentho");
    if (!error && QFileInfo(executable).isExecutable() && model.installedVersion() == manifest.version)
        run.seconds = seconds;
    return run;
}

double shellOnce(const QUrl& url, const QString& scratch) {
    QTemporaryDir work(scratch + QStringLiteral("/shell-XXXXXX"));
    const QString file = work.filePath(QStringLiteral("build.tar.gz"));
    const QString dir = work.filePath(QStringLiteral("build"));
    QDir().mkpath(dir);
    QElapsedTimer clock;
    clock.start();
    const bool ok = runShell(QStringLiteral("curl -sS --cacert %1 -o %2 %3 && sha256sum %2 && "
                                            "tar -xzf %2 -C %4")
                                 .arg(quoted(TestServer::caPath()), quoted(file),
                                      quoted(url.toString()), quoted(dir)));
    const double seconds = clock.nsecsElapsed() / 1e9;
    return ok && QFileInfo(dir + QStringLiteral("/zentho")).isExecutable() ? seconds : -1;
}

// Seconds one shell command takes, or -1 when it fails.
double timedShell(const QString& script) {
    QElapsedTimer clock;
    clock.start();
    const bool ok = runShell(script);
    return ok ? clock.nsecsElapsed() / 1e9 : -1;
}

// Where the time goes: each stage of both ways on its own, the archive already in the page cache.
void printStages(long long mib, const QUrl& url, const QString& archive, const QString& scratch) {
    QTemporaryDir work(scratch + QStringLiteral("/stages-XXXXXX"));
    const QString copy = quoted(work.filePath(QStringLiteral("copy.tar.gz")));
    const QString into = quoted(work.path());
    const QString source = quoted(archive);
    const struct {
        const char* name;
        QString script;
    } stages[] = {
        {"curl", QStringLiteral("curl -sS --cacert %1 -o %2 %3")
                     .arg(quoted(TestServer::caPath()), copy, quoted(url.toString()))},
        {"sha256sum", QStringLiteral("sha256sum %1").arg(source)},
        {"tar_list", QStringLiteral("tar -tzf %1").arg(source)},
        {"tar_extract", QStringLiteral("tar -xzf %1 -C %2").arg(source, into)},
    };
    for (const auto& stage : stages)
        std::printf("stage_%s_%lld_mib_seconds: %.2f\n", stage.name, mib, timedShell(stage.script));
}

double median(QList<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QList<qint64> sizes;
    for (int i = 1; i < argc; ++i)
        sizes << QByteArray(argv[i]).toLongLong() * kMiB;
    if (sizes.isEmpty())
        sizes = {512 * kMiB, 1024 * kMiB};

    QTemporaryDir scratch;
    TestServer server;
    TestServer::trustInThisProcess();
    bool allOk = true;

    for (const qint64 size : sizes) {
        const long long mib = size / kMiB;
        const QString tree = scratch.filePath(QStringLiteral("tree"));
        TestFiles::makeBuild(tree);
        const QString archive = server.writeFile(QStringLiteral("build-%1.tar.gz").arg(mib), {});
        if (!runShell(QStringLiteral("head -c %1 /dev/urandom > %2/assets.pak && "
                                     "tar -C %2 -cf - zentho assets.pak | gzip -1 > %3 && "
                                     "rm -rf %2 && cat %3 > /dev/null")
                          .arg(size)
                          .arg(quoted(tree), quoted(archive)))) {
            std::fprintf(stderr, "could not make the %lld MiB archive\n", mib);
            return 1;
        }
        const QUrl url = server.url(QStringLiteral("/build-%1.tar.gz").arg(mib));
        const ReleaseManifest manifest{QStringLiteral("9.%1.0").arg(mib),
                                       QStringLiteral("macos-arm64"), url,
                                       TestArchives::sha256sum(archive), QStringLiteral("zentho")};

        // Alternate the two so that neither profits from a warmer machine.
        const int rounds = size > 512 * kMiB ? 1 : 3;
        QList<double> ours, shell;
        long peak = 0, start = 0;
        for (int round = 0; round < rounds; ++round) {
            const InstallRun run = installOnce(manifest, scratch.path());
            const double baseline = shellOnce(url, scratch.path());
            if (run.seconds < 0 || baseline < 0) {
                std::fprintf(stderr, "the %lld MiB install or its baseline failed\n", mib);
                return 1;
            }
            ours << run.seconds;
            shell << baseline;
            peak = std::max(peak, run.peakKiB);
            start = run.startKiB;
        }
        const double ratio = median(ours) / median(shell);
        std::printf("install_%lld_mib_seconds: %.2f (median of %d)\n", mib, median(ours), rounds);
        std::printf("curl_sha256sum_tar_%lld_mib_seconds: %.2f (median of %d)\n", mib,
                    median(shell), rounds);
        std::printf("install_%lld_mib_ratio_to_shell: %.2f (target <= 1.0)\n", mib, ratio);
        std::printf("install_%lld_mib_peak_rss: %.1f MiB (resident at start %.1f MiB; target <= 64 "
                    "MiB for 1 GiB)\n",
                    mib, peak / 1024.0, start / 1024.0);
        printStages(mib, url, archive, scratch.path());
        allOk = allOk && ratio <= 1.0 && (size < 1024 * kMiB || peak <= 64 * 1024);
        QFile::remove(archive);
    }
    return allOk ? 0 : 2;
}
