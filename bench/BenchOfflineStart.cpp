// How long a press of the main button takes to get the installed game running when the release
// server cannot be reached: refused connections, and a server that drops every packet. Both
// manifests live on that one server, so the second request meets a server that has just failed
// to connect. The time runs from the press until the launcher asks to quit, which is after the
// game has survived its 750 ms start-up watch.

#include "BlackHole.h"
#include "FlowScenario.h"
#include "ScopedDataHome.h"
#include "StandinGames.h"
#include "TestServer.h"

#include <QGuiApplication>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>

namespace {

double pressToRunning(const QString& manifestUrl, const QString& bundleExe, int runs) {
    QList<double> seconds;
    for (int i = 0; i < runs; ++i) {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("ZENTHO_TEST_BUNDLE_EXE", bundleExe);
        env.insert("ZENTHO_UPDATE_MANIFEST", manifestUrl);
        env.insert("ZENTHO_LAUNCHER_UPDATE_MANIFEST", manifestUrl);
        const FlowOutcome out = FlowScenario::run(env);
        if (out.quitCount != 1) {
            std::fprintf(stderr, "the press did not start the game: %s\n",
                         qPrintable(out.statuses.join(QLatin1String(" | "))));
            return -1;
        }
        seconds << out.elapsedMicroseconds / 1e6;
    }
    std::sort(seconds.begin(), seconds.end());
    return seconds[seconds.size() / 2];
}

} // namespace

int main(int argc, char** argv) {
    if (const auto code = FlowScenario::runChildIfAsked(argc, argv))
        return *code;
    QGuiApplication app(argc, argv);
    ScopedDataHome home;
    QTemporaryDir scratch;
    const QString exe = scratch.path() + "/ZL.app/Contents/MacOS/ZenthoLauncher";
    StandinGames::runsFor(scratch.path() + "/ZL.app/Contents/Resources/SeedRuntime", 2.0);

    const double refused = pressToRunning(
        QStringLiteral("https://127.0.0.1:%1/m.json").arg(TestServer::unusedLocalPort()), exe, 5);
    BlackHole hole;
    const double blackHoled = pressToRunning(
        QStringLiteral("https://127.0.0.1:%1/m.json").arg(hole.port()), exe, 1);

    std::printf("offline_refused_press_to_running: %.3f s (median of 5; target 0.9 s)\n", refused);
    std::printf("offline_refused_ratio_to_target: %.2f\n", refused / 0.9);
    std::printf("offline_blackholed_press_to_running: %.3f s (target 6 s)\n", blackHoled);
    std::printf("offline_blackholed_ratio_to_target: %.2f\n", blackHoled / 6.0);
    return refused > 0 && blackHoled > 0 && blackHoled <= 6.0 ? 0 : 1;
}
