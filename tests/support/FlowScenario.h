#pragma once

#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

// Runs one press of the main button in a fresh process of the calling test binary, because the
// manifest addresses are read from the environment once per process. The parent prepares disk,
// server and environment; the child builds a model over the real platform (quit recorded, not
// performed), presses, and reports every status and the outcome on standard output. Its games
// are watched and ended by a GameWatch, so whether one counts as started is its own doing.
//
// Child options, all from the environment:
//   ZENTHO_TEST_BUNDLE_EXE     the launcher executable path the platform pretends to run from
//   ZENTHO_TEST_PRESSES        how many presses, one after the other finished (default 1)
//   ZENTHO_TEST_DOUBLE_PRESS   "1": press twice at once
//   ZENTHO_TEST_INVITE         an invite URL opened when the status first equals
//   ZENTHO_TEST_INVITE_AT      this text (or at once when empty)
struct FlowOutcome {
    QStringList statuses; // every status the model published, in order
    int quitCount = 0;
    bool busy = false;    // at the end
    int exitCode = -1;
    qint64 elapsedMicroseconds = 0; // from the first press until the press ended (benchmarks only)
    QString childErrors;  // the child's standard error, for failure messages
};

namespace FlowScenario {

// In main(): when this process is a scenario child, runs it and returns its exit code.
std::optional<int> runChildIfAsked(int argc, char** argv);

// Runs one scenario child with `environment` and waits for it (5 minutes at most).
FlowOutcome run(const QProcessEnvironment& environment);

} // namespace FlowScenario
