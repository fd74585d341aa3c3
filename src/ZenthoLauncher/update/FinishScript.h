#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

#include <sys/types.h>

class FileManager;

// The small shell script that swaps the launcher's bundle for a staged update once the running
// launcher has gone: it waits for the launcher's process to end, moves the running bundle to a
// backup location, moves the staged bundle into its place and starts it; if that second move
// fails it puts the backup back and starts the old launcher. The launcher never overwrites its
// own bundle while it runs.
//
// The wait is bounded. A launcher that has not gone after it (hung while quitting, or its
// process identifier taken by another program) is neither killed nor replaced: a bundle whose
// process still runs is never moved. The script then removes the staged bundle and its staging
// folder (when that is left empty) and ends, leaving the running bundle exactly as it was; the
// next start of the launcher finds the update again and stages it anew.
//
// Arguments, in this order: the launcher's process identifier, the staged bundle, the target
// (running) bundle and the backup location; on Linux an optional fifth, the invite the launcher
// it starts is to follow. Exit status 0 after a swap, 1 when nothing could be swapped, 2 when the
// launcher still ran at the end of the wait.
class FinishScript {
public:
    // How the script starts the launcher it leaves in place.
    enum class Opener {
        macOS, // "/usr/bin/open" on the bundle
        // the bundle's executable, in a session of its own, detached from the script, with
        // "-- <invite>" when the fifth argument is given
        linuxDesktop,
    };

    // How long the script waits for the launcher to go, in checks a tenth of a second apart: at
    // least a minute, longer on a busy machine. A launcher quits within a second or two of
    // starting the script; a minute leaves room for a slow disk flushing its last writes.
    static constexpr int kLauncherWaitTenths = 600;

    // The script's text: 21 lines joined by line feeds, no line feed after the last. It gives up
    // after `waitTenths` checks that found the launcher still running.
    static QByteArray text(Opener opener, int waitTenths = kLauncherWaitTenths);
    // The text for the platform this launcher runs on.
    static QByteArray textForThisPlatform(int waitTenths = kLauncherWaitTenths);

    // Writes textForThisPlatform() atomically to `scriptPath`, makes it 0755 and starts it as
    // "/bin/sh scriptPath launcherPid staged target backup [invite]" (the invite only when there
    // is a non-empty one: the launcher that starts next follows it) with standard output and
    // standard error on /dev/null, standard input, environment and working folder inherited. The
    // child is not waited for: it outlives the launcher, and while the launcher still runs it is
    // collected in the background once it ends. Returns its process identifier. Write,
    // permission and start errors pass through as the platform's errors.
    static pid_t writeAndStart(const FileManager& files, const QString& scriptPath, qint64 launcherPid,
                               const QString& staged, const QString& target,
                               const QString& backup,
                               const std::optional<QString>& invite = std::nullopt);
};
