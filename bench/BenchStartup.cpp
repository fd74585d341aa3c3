// What saved builds cost the player at start-up and after an install.
//
// Window: the real launcher of this build is started again and again, alternately on a data
// folder with no saved builds and on one with 1,000, and timed from its start to the first frame
// it draws (offscreen, software rendering; the frame is seen through Qt's own render-loop log on
// standard error). The difference of the medians is what the builds add.
//
// Rescan: in this process, a model with 1,000 saved builds and its window shown; one more build
// is saved and the versions folder rescanned, timed until the window has taken in the new list
// (the picker's bindings run inside the rescan's notifications).
//
//   BenchStartup            1,000 builds, 15 starts of each kind
//   BenchStartup 3000 9     other counts

#include "LauncherModelProbe.h"
#include "ScopedDataHome.h"
#include "TestFiles.h"
#include "WindowFixture.h"

#include "platform/FileManager.h"
#include "storage/InstalledBuild.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QElapsedTimer>
#include <QGuiApplication>
#include <QProcess>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>

namespace {

QString launcherExecutable() {
    return QCoreApplication::applicationDirPath() +
           QStringLiteral("/../ZenthoLauncher.app/Contents/MacOS/ZenthoLauncher");
}

void saveBuilds(const QString& versionsRoot, int count) {
    for (int i = 0; i < count; ++i)
        TestFiles::makeBuild(versionsRoot + QStringLiteral("/0.%1.%2").arg(i / 100).arg(i % 100));
}

double median(QList<double> values) {
    std::sort(values.begin(), values.end());
    return values.isEmpty() ? -1 : values[values.size() / 2];
}

// Milliseconds from starting the launcher on `dataHome` to its first drawn frame; -1 when none
// came within 20 s.
double startToFirstFrame(const QString& dataHome) {
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("XDG_DATA_HOME"), dataHome);
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    env.insert(QStringLiteral("QT_QUICK_BACKEND"), QStringLiteral("software"));
    env.insert(QStringLiteral("QT_LOGGING_RULES"), QStringLiteral("qt.scenegraph.time.renderloop=true"));
    QProcess launcher;
    launcher.setProcessEnvironment(env);
    launcher.setStandardOutputFile(QProcess::nullDevice());
    launcher.setReadChannel(QProcess::StandardError);
    QElapsedTimer clock;
    clock.start();
    launcher.start(launcherExecutable(), {});
    QByteArray errors;
    double elapsed = -1;
    QDeadlineTimer deadline(20000);
    while (!deadline.hasExpired() && launcher.state() != QProcess::NotRunning) {
        if (launcher.waitForReadyRead(50)) {
            errors += launcher.readAllStandardError();
            if (errors.contains("Frame rendered")) {
                elapsed = clock.nsecsElapsed() / 1e6;
                break;
            }
        }
    }
    if (elapsed < 0)
        std::fprintf(stderr, "no frame from the launcher: %s\n", errors.constData());
    launcher.kill();
    launcher.waitForFinished();
    return elapsed;
}

} // namespace

int main(int argc, char** argv) {
    QGuiApplication app(argc, argv);
    const int count = argc > 1 ? std::atoi(argv[1]) : 1000;
    const int starts = argc > 2 ? std::atoi(argv[2]) : 15;

    QTemporaryDir none;
    QTemporaryDir many;
    saveBuilds(many.path() + QStringLiteral("/Zentho/launcher/versions"), count);

    startToFirstFrame(none.path()); // warms the file cache for both
    startToFirstFrame(many.path());
    QList<double> withNone;
    QList<double> withMany;
    for (int i = 0; i < starts; ++i) {
        withNone << startToFirstFrame(none.path());
        withMany << startToFirstFrame(many.path());
    }
    const double noneMs = median(withNone);
    const double manyMs = median(withMany);

    // The rescan, with the window taking in every change.
    QList<double> scans;
    QList<double> rescans;
    {
        WindowFixture f;
        saveBuilds(f.home.versionsRoot(), count);
        LauncherModelProbe::refreshInstalledBuilds(*f.model);
        for (int i = 0; i < 30; ++i) {
            QElapsedTimer clock;
            clock.start();
            const auto builds = scanInstalledBuilds(FileManager::defaultManager(), f.home.versionsRoot());
            scans << clock.nsecsElapsed() / 1e6;

            TestFiles::makeBuild(f.home.versionsRoot() + QStringLiteral("/1.0.%1").arg(i));
            clock.restart();
            LauncherModelProbe::refreshInstalledBuilds(*f.model);
            rescans << clock.nsecsElapsed() / 1e6;
            if (f.model->installedBuilds().size() != count + i + 1 || builds.size() != count + i) {
                std::fprintf(stderr, "the rescan missed builds\n");
                return 1;
            }
            QCoreApplication::processEvents();
        }
    }

    std::printf("window_first_frame_0_builds: %.1f ms (median of %d starts)\n", noneMs, starts);
    std::printf("window_first_frame_%d_builds: %.1f ms (median of %d starts)\n", count, manyMs, starts);
    std::printf("window_delay_for_%d_builds: %.1f ms (target <= 20 ms)\n", count, manyMs - noneMs);
    std::printf("scan_%d_builds: %.2f ms (median of 30, folder listing only)\n", count, median(scans));
    std::printf("rescan_%d_builds_with_window: %.2f ms (median of 30, one build added each time; target <= 10 ms)\n",
                count, median(rescans));
    return noneMs > 0 && manyMs > 0 ? 0 : 1;
}
