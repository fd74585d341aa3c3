#include "update/FinishScript.h"

#include "platform/FileManager.h"
#include "process/ChildReaper.h"

#include <QFile>

#include <cerrno>
#include <spawn.h>
#include <string>
#include <system_error>
#include <vector>

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

extern char** environ;

namespace {

QByteArray scriptWithOpener(const QByteArray& opener, int waitTenths) {
    return QByteArrayLiteral("#!/bin/sh\n"
                             "old_pid=\"$1\"\n"
                             "staged=\"$2\"\n"
                             "target=\"$3\"\n"
                             "backup=\"$4\"\n"
                             "waited=0\n"
                             "while kill -0 \"$old_pid\" 2>/dev/null; do\n"
                             "  if [ \"$waited\" -ge ") +
           QByteArray::number(waitTenths) +
           QByteArrayLiteral(
               " ]; then\n"
               "    /bin/rm -rf \"$staged\"; /bin/rmdir \"${staged%/*}\" 2>/dev/null; exit 2\n"
               "  fi\n"
               "  waited=$((waited + 1))\n"
               "  sleep 0.1\n"
               "done\n"
               "if ! /bin/mv \"$target\" \"$backup\"; then exit 1; fi\n"
               "if /bin/mv \"$staged\" \"$target\"; then\n  ") +
           opener + QByteArrayLiteral("\n  exit 0\nfi\n/bin/mv \"$backup\" \"$target\"\n") +
           opener + QByteArrayLiteral("\nexit 1");
}

struct SpawnActions {
    posix_spawn_file_actions_t actions;
    SpawnActions() { posix_spawn_file_actions_init(&actions); }
    ~SpawnActions() { posix_spawn_file_actions_destroy(&actions); }
    SpawnActions(const SpawnActions&) = delete;
    SpawnActions& operator=(const SpawnActions&) = delete;
};

} // namespace

QByteArray FinishScript::text(Opener opener, int waitTenths) {
    switch (opener) {
    case Opener::macOS:
        return scriptWithOpener(QByteArrayLiteral("/usr/bin/open \"$target\""), waitTenths);
    case Opener::linuxDesktop:
        // The new launcher gets a session of its own, so it is not tied to the script or to the
        // terminal the old launcher was started from. An invite given as the fifth argument
        // follows "--", so the launcher takes it as its link whatever its first character.
        return scriptWithOpener(
            QByteArrayLiteral(
                "/usr/bin/setsid -f \"$target/Contents/MacOS/ZenthoLauncher\" ${5:+--} ${5:+\"$5\"}"
                " >/dev/null 2>&1"),
            waitTenths);
    }
    return {};
}

QByteArray FinishScript::textForThisPlatform(int waitTenths) {
#ifdef __APPLE__
    return text(Opener::macOS, waitTenths);
#else
    return text(Opener::linuxDesktop, waitTenths);
#endif
}

pid_t FinishScript::writeAndStart(const FileManager& files, const QString& scriptPath,
                                  qint64 launcherPid, const QString& staged,
                                  const QString& target, const QString& backup,
                                  const std::optional<QString>& invite) {
    files.writeAtomically(scriptPath, textForThisPlatform());
    files.setPosixPermissions(scriptPath, 0755);

    std::vector<std::string> arguments{
        "/bin/sh",
        QFile::encodeName(scriptPath).toStdString(),
        std::to_string(launcherPid),
        QFile::encodeName(staged).toStdString(),
        QFile::encodeName(target).toStdString(),
        QFile::encodeName(backup).toStdString(),
    };
    if (invite && !invite->isEmpty())
        arguments.push_back(QFile::encodeName(*invite).toStdString());
    std::vector<char*> argv;
    for (const std::string& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);

    SpawnActions spawn;
    posix_spawn_file_actions_addopen(&spawn.actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_adddup2(&spawn.actions, STDOUT_FILENO, STDERR_FILENO);
    pid_t pid = -1;
    const int err = ::posix_spawn(&pid, "/bin/sh", &spawn.actions, nullptr, argv.data(), environ);
    if (err != 0)
        throw std::system_error(err, std::generic_category(), "could not start /bin/sh");
    // Collected in the background while the launcher runs on; orphaned when it quits.
    ChildReaper::adopt(pid, static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
    return pid;
}
