#pragma once

#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>

#include <optional>

class TestServer;

// The real launcher executable of a bundle, started as the desktop would start it for an invite
// link (the link is its one argument, which presses the main button), trusting the test server's
// CA, with its own data folder and its manifests on the test server.
class RealLauncher {
public:
    RealLauncher(const QString& bundle, const QString& dataHome);
    ~RealLauncher();
    RealLauncher(const RealLauncher&) = delete;
    RealLauncher& operator=(const RealLauncher&) = delete;

    QProcessEnvironment& environment() { return env_; }
    void useManifests(const QString& gameManifest, const QString& launcherManifest);
    void recordGameStartIn(const QString& recordPath);

    // Runs the launcher through `program` `arguments`... (for example setpriv with fewer
    // privileges), which must end by executing the launcher with what follows them.
    void runThrough(const QStringList& programAndArguments) { wrapper_ = programAndArguments; }

    void start(const TestServer& server, const QString& invite);
    // The running launcher's process identifier, once it runs as itself (0 until then).
    qint64 launcherPid(int timeoutMs = 10000) const;
    // Waits for the launcher to end by itself; its exit code, or none when it did not end in
    // time (it is then killed) or crashed.
    std::optional<int> waitForExit(int timeoutMs = 60000);
    // Waits up to `timeoutMs` for the launcher to end, and leaves it running when it does not:
    // true while it still runs.
    bool stillRunningAfter(int timeoutMs);
    QByteArray errors() const { return errors_; }

    // `bundle`/Contents/MacOS/ZenthoLauncher --version, trimmed.
    static QString versionOf(const QString& bundle);
    static QString executableOf(const QString& bundle);

    // The stand-in game's record at `path` once it is complete (it ends with its pid line), or
    // empty when none appeared in time.
    static QByteArray waitForGameRecord(const QString& path, int timeoutMs = 20000);
    static qint64 recordedPid(const QByteArray& record);
    // The folder the game of `record` started in (its working folder), or empty.
    static QString recordedFolder(const QByteArray& record);

    // Processes whose executable is `path` (from /proc/<pid>/exe).
    static QList<qint64> processesRunning(const QString& path);
    // Processes whose executable lies in `folder` or below it.
    static QList<qint64> processesRunningFrom(const QString& folder);
    // Ends a process that has come to this test (as subreaper or parent) and collects it.
    static void terminateAndCollect(qint64 pid);
    // Ends a launcher this test started itself and waits for it: asked to quit, then killed.
    static void stop(QProcess& launcher);
    // Makes this process the subreaper of everything its children leave behind, so games and
    // relaunched launchers can be seen and collected.
    static bool becomeSubreaper();

private:
    QString bundle_;
    QProcessEnvironment env_;
    QProcess process_;
    QByteArray errors_;
    QStringList wrapper_;
};
