#pragma once

#include <QString>
#include <QStringList>

#include <optional>

// Game builds for tests: folders holding a small shell program named "zentho" that behaves like
// a game that starts fine, crashes, quits early or cannot be started at all.
namespace StandinGames {

// Long enough that a game running for it is only ever ended by the test (GameWatch does that).
inline constexpr double untilEnded = 3600;

// Exits with `status` after `seconds`.
void exitsAfter(const QString& folder, double seconds, int status);
// Is ended by signal `signal` (sent to itself) after `seconds`.
void killedAfter(const QString& folder, double seconds, int signal);
// Runs for `seconds` and exits 0; its process identifier is the one the launcher started.
void runsFor(const QString& folder, double seconds);
// Writes what it was started with to `recordPath` (see Record), then runs for `seconds`.
void recorder(const QString& folder, const QString& recordPath, double seconds = 1.5);
// Writes its record like recorder(), then waits until a file exists at `exitSignalPath` and exits
// with `status`: a game that ends when the test says so.
void endsWhenTold(const QString& folder, const QString& recordPath, const QString& exitSignalPath,
                  int status);
// Writes its record like recorder(), then removes its own build folder and exits with `status`:
// a build that is gone by the time the launcher looks again.
void removesItselfAndExits(const QString& folder, const QString& recordPath, int status);
// A build folder with other files in it but no "zentho".
void withoutExecutable(const QString& folder);
// A "zentho" that is an ordinary script without execute permission.
void notExecutable(const QString& folder);
// A "zentho" with execute permission that is neither a binary nor a script.
void notAProgram(const QString& folder);

// The stand-in game program the build lays into the bundle's seed runtime.
QString builtStandinGame();

// What a recorder saw when it started.
struct Record {
    qint64 pid = 0;
    QString program;   // its $0
    QString cwd;       // its working folder, symbolic links resolved
    QStringList arguments;
    QString mark;      // the value of $ZENTHO_TEST_MARK in its environment
    QString blockedSignals; // the SigBlk mask from /proc, in hex
    QString stdoutTarget;   // where its standard output goes (the /proc fd link)
};
// Waits (processing events) up to `timeoutMs` for the record at `recordPath` to be complete.
std::optional<Record> waitForRecord(const QString& recordPath, int timeoutMs = 30000);

// The state letter of a process from /proc/<pid>/stat ('R', 'S', 'Z', ...), or none when the
// process no longer exists.
std::optional<char> processState(qint64 pid);
// The session and process group of a process, from /proc/<pid>/stat.
std::optional<qint64> processSession(qint64 pid);
std::optional<qint64> processGroup(qint64 pid);
std::optional<qint64> parentProcess(qint64 pid);
// Blocks, without running the event loop, until the process is a zombie (has ended and has not
// been collected); false when that takes more than a minute.
bool becomesZombieWhileNobodyLooks(qint64 pid);

} // namespace StandinGames
