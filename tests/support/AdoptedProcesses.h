#pragma once

#include <QList>
#include <QString>
#include <QtGlobal>

// What a test's launchers leave behind comes to the test once it is their subreaper: the games
// they start, a launcher a finish script starts again, the script itself. Made when a test
// function begins, this notes the children the test already has (its servers, its X server);
// when it goes, every other child is ended and collected, so no test leaves a process running
// whatever it checked or failed on the way.
class AdoptedProcesses {
public:
    AdoptedProcesses();
    ~AdoptedProcesses();
    AdoptedProcesses(const AdoptedProcesses&) = delete;
    AdoptedProcesses& operator=(const AdoptedProcesses&) = delete;

    // The children that came since, still running (an ended one is collected here).
    QList<qint64> running();
    // Waits until every child that came since has ended by itself, collecting each; false when
    // some still run after `timeoutMs`. This is how a test knows that nothing a launcher left
    // can still act: no finish script can still swap a bundle, no launcher still start a game.
    bool waitUntilAllEnded(int timeoutMs = 30000);
    // Ends every child that came since (SIGTERM, then SIGKILL) and collects it, and the children
    // those hand over as they end.
    void endAll();
    // Ends every process, adopted or not, whose program lies in `folder`: what runs from a test's
    // folder must not outlive it.
    static void endRunningFrom(const QString& folder);

private:
    QList<qint64> known_;
};
