#include "FreshSystem.h"

#include "MountNamespace.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QtDebug>

#include <stdexcept>

#include <unistd.h>

namespace {

const QString playerName = QStringLiteral("player");

// Run by the helper that holds the namespace: mounts the root, says "ready" and waits for its
// standard input to close, which happens when the object goes and also when the test process
// dies in any way. Then it kills everything in the namespace (a game that left the launcher's
// session too) until nothing is left, so the namespace, and every mount in it, goes with it.
// Arguments: the base, the overlay's upper and work folders, the mount point, the host's X
// socket folder or "".
const char* const mountScript = R"(set -eu
base=$1 upper=$2 work=$3 root=$4 x11=$5
mount -t overlay overlay -o "lowerdir=$base,upperdir=$upper,workdir=$work" "$root"
mount -t proc proc "$root/proc"
mount -t sysfs -o ro,nosuid,nodev,noexec sysfs "$root/sys"
# A /dev of its own, as a container has: the host's device nodes stay out of reach.
mount -t tmpfs -o mode=755,nosuid dev "$root/dev"
for node in null zero full random urandom tty; do
    touch "$root/dev/$node"
    mount --bind "/dev/$node" "$root/dev/$node"
done
ln -s /proc/self/fd "$root/dev/fd"
ln -s /proc/self/fd/0 "$root/dev/stdin"
ln -s /proc/self/fd/1 "$root/dev/stdout"
ln -s /proc/self/fd/2 "$root/dev/stderr"
mkdir "$root/dev/pts" "$root/dev/shm"
mount -t devpts -o newinstance,ptmxmode=0666,mode=620,gid=5 devpts "$root/dev/pts"
ln -s pts/ptmx "$root/dev/ptmx"
mount -t tmpfs -o mode=1777,nosuid,nodev shm "$root/dev/shm"
mount -t tmpfs -o mode=1777,nosuid,nodev tmp "$root/tmp"
mount -t tmpfs -o mode=755,nosuid,nodev run "$root/run"
mkdir -m 1777 "$root/run/lock"
if [ -n "$x11" ]; then
    mkdir -m 1777 "$root/tmp/.X11-unix"
    mount --bind "$x11" "$root/tmp/.X11-unix"
fi
echo ready
cat >/dev/null || :
pattern=$(readlink /proc/$$/ns/mnt | sed 's/[][]/\\&/g')
while :; do
    ended=
    # A process that has exited has let go of its namespace and is not listed any more.
    inside=$(find /proc/[0-9]*/ns/mnt -maxdepth 0 -lname "$pattern" 2>/dev/null | cut -d/ -f3)
    for pid in $inside; do
        if [ "$pid" != $$ ] && kill -KILL "$pid" 2>/dev/null; then
            ended=1
        fi
    done
    [ -n "$ended" ] || break
done
)";

// The player's account and the runtime folders a desktop session would have made.
const char* const playerScript = R"(set -eu
useradd --create-home --uid "$1" --user-group --shell /bin/bash "$2"
install -d -m 700 -o "$2" -g "$2" "/run/user/$1"
install -d -m 700 /run/user/0
)";

[[noreturn]] void fail(const QString& what) {
    throw std::runtime_error(what.toStdString());
}

void runOnHost(const QStringList& command) {
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(command.first(), command.mid(1));
    if (!process.waitForFinished(300000) || process.exitStatus() != QProcess::NormalExit ||
        process.exitCode() != 0)
        fail(command.join(QLatin1Char(' ')) + QStringLiteral(" failed: ") +
             QString::fromLocal8Bit(process.readAll()) + process.errorString());
}

} // namespace

FreshSystem::FreshSystem(const QString& suite, const QString& display,
                         const FreshDebianBase::Progress& progress)
    : FreshSystem(FreshDebianBase(suite), display, progress) {}

FreshSystem::FreshSystem(const FreshDebianBase& base, const QString& display,
                         const FreshDebianBase::Progress& progress)
    : base_(base), display_(display) {
    if (!work_.isValid())
        fail(QStringLiteral("no temporary folder for a fresh system"));
    base_.ensure(progress);
    try {
        mountRoot();
        const Result made =
            run({"/bin/sh", "-c", playerScript, "player", QString::number(playerUid), playerName},
                User::root);
        if (!made.succeeded())
            fail(QStringLiteral("could not add the player to the fresh %1 system: ").arg(suite()) +
                 QString::fromUtf8(made.output));
    } catch (...) {
        endEverythingInside();
        throw;
    }
}

FreshSystem::~FreshSystem() {
    endEverythingInside();
}

void FreshSystem::mountRoot() {
    for (const char* folder : {"upper", "work", "root"})
        QDir(work_.path()).mkpath(QString::fromLatin1(folder));
    const QString base = base_.root();
    // overlayfs takes its folders as one option string.
    for (const QString& path : {base, work_.path()}) {
        if (path.contains(QLatin1Char(',')) || path.contains(QLatin1Char(':')))
            fail(QStringLiteral("an overlay cannot use %1: it holds a ',' or ':'").arg(path));
    }
    const QString x11 = display_.isEmpty() ? QString() : QStringLiteral("/tmp/.X11-unix");
    holder_.start(QStringLiteral("/usr/bin/unshare"),
                  {"--mount", "--propagation", "private", "--", "/bin/sh", "-c", mountScript,
                   "fresh-root", base, work_.filePath(QStringLiteral("upper")),
                   work_.filePath(QStringLiteral("work")), mountPoint(), x11});
    QByteArray said;
    const QDeadlineTimer deadline(30000);
    while (!said.contains("ready\n") && !deadline.hasExpired() &&
           holder_.state() != QProcess::NotRunning) {
        holder_.waitForReadyRead(100);
        said += holder_.readAllStandardOutput();
    }
    if (!said.contains("ready\n"))
        fail(QStringLiteral("could not mount the fresh %1 root over %2: %3")
                 .arg(suite(), base,
                      QString::fromLocal8Bit(holder_.readAllStandardError()) +
                          holder_.errorString()));
    namespace_ = MountNamespace::of(holder_.processId());
    if (namespace_.isEmpty() || namespace_ == MountNamespace::of(::getpid()))
        fail(QStringLiteral("the fresh %1 root has no mount namespace of its own").arg(suite()));
}

QString FreshSystem::mountPoint() const {
    return work_.filePath(QStringLiteral("root"));
}

QString FreshSystem::hostPath(const QString& inside) const {
    return QStringLiteral("/proc/%1/root%2%3").arg(holder_.processId()).arg(mountPoint(), inside);
}

QString FreshSystem::home(User user) {
    return user == User::root ? QStringLiteral("/root") : QStringLiteral("/home/") + playerName;
}

QProcessEnvironment FreshSystem::environment(User user) const {
    const QString home = FreshSystem::home(user);
    const bool root = user == User::root;
    QProcessEnvironment environment;
    environment.insert(
        QStringLiteral("PATH"),
        root ? QStringLiteral("/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin")
             : QStringLiteral("/usr/local/bin:/usr/bin:/bin"));
    environment.insert(QStringLiteral("HOME"), home);
    environment.insert(QStringLiteral("USER"), root ? QStringLiteral("root") : playerName);
    environment.insert(QStringLiteral("LOGNAME"), root ? QStringLiteral("root") : playerName);
    environment.insert(QStringLiteral("SHELL"), QStringLiteral("/bin/bash"));
    environment.insert(QStringLiteral("LANG"), QStringLiteral("C.UTF-8"));
    environment.insert(QStringLiteral("XDG_DATA_HOME"), home + QStringLiteral("/.local/share"));
    environment.insert(QStringLiteral("XDG_CONFIG_HOME"), home + QStringLiteral("/.config"));
    environment.insert(QStringLiteral("XDG_CACHE_HOME"), home + QStringLiteral("/.cache"));
    environment.insert(QStringLiteral("XDG_STATE_HOME"), home + QStringLiteral("/.local/state"));
    environment.insert(QStringLiteral("XDG_RUNTIME_DIR"),
                       QStringLiteral("/run/user/%1").arg(root ? 0 : playerUid));
    if (!display_.isEmpty())
        environment.insert(QStringLiteral("DISPLAY"), display_);
    return environment;
}

QStringList FreshSystem::wrapped(const QStringList& command, User user) const {
    // The host's chroot sets the user by number, so nothing of the root is needed to get in;
    // the shell inside starts the command in the user's home, as a login would.
    QStringList line{"/usr/bin/nsenter", "--target", QString::number(holder_.processId()),
                     "--mount",          "--",       "/usr/sbin/chroot"};
    if (user == User::player)
        line << QStringLiteral("--userspec=%1:%1").arg(playerUid)
             << QStringLiteral("--groups=%1").arg(playerUid);
    return line + QStringList{mountPoint(), "/bin/sh", "-c", "cd \"$HOME\" && exec \"$@\"", "sh"} +
           command;
}

void FreshSystem::prepare(QProcess& process, const QStringList& command, User user,
                          const QStringList& environment) const {
    QProcessEnvironment settings = this->environment(user);
    for (const QString& setting : environment) {
        const qsizetype equals = setting.indexOf(QLatin1Char('='));
        settings.insert(setting.left(equals), setting.mid(equals + 1));
    }
    const QStringList line = wrapped(command, user);
    process.setProcessEnvironment(settings);
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.setProgram(line.first());
    process.setArguments(line.mid(1));
}

FreshSystem::Result FreshSystem::run(const QStringList& command, User user,
                                     const QStringList& environment,
                                     const QByteArray& input) const {
    QProcess process;
    prepare(process, command, user, environment);
    process.start();
    if (!process.waitForStarted(10000))
        return {-1, process.errorString().toUtf8()};
    process.write(input);
    process.closeWriteChannel();
    Result result;
    if (!process.waitForFinished(120000)) {
        process.kill();
        process.waitForFinished(10000);
        result.output = process.readAll() + "\n[killed after 2 minutes]";
        return result;
    }
    result.output = process.readAll();
    if (process.exitStatus() == QProcess::NormalExit)
        result.exitCode = process.exitCode();
    return result;
}

QProcess& FreshSystem::start(const QStringList& command, User user,
                             const QStringList& environment) {
    auto& process = *started_.emplace_back(std::make_unique<QProcess>());
    prepare(process, command, user, environment);
    process.start();
    process.closeWriteChannel();
    return process;
}

void FreshSystem::trustCa(const QString& pemFile) {
    // update-ca-certificates takes only files named *.crt from this folder.
    const QString target =
        hostPath(QStringLiteral("/usr/local/share/ca-certificates/zentho-test-ca.crt"));
    QFile::remove(target);
    if (!QDir().mkpath(QFileInfo(target).path()) || !QFile::copy(pemFile, target))
        fail(QStringLiteral("could not copy %1 into the fresh %2 system").arg(pemFile, suite()));
    const Result updated = run({"/usr/sbin/update-ca-certificates"}, User::root);
    if (!updated.succeeded() || !updated.output.contains("1 added"))
        fail(QStringLiteral("update-ca-certificates in the fresh %1 system did not add %2: %3")
                 .arg(suite(), pemFile, QString::fromUtf8(updated.output)));
}

void FreshSystem::copyIn(const QString& hostFolder, const QString& inside, User owner) {
    // The parents are made by the owner, so a player's copy lies in folders the player may write.
    const Result parents = run({"/bin/mkdir", "-p", QFileInfo(inside).path()}, owner);
    if (!parents.succeeded())
        fail(QStringLiteral("could not make the folders of %1 in the fresh %2 system: %3")
                 .arg(inside, suite(), QString::fromUtf8(parents.output)));
    runOnHost({"/bin/cp", "-a", "--no-target-directory", "--", hostFolder, hostPath(inside)});
    if (owner == User::player)
        runOnHost({"/bin/chown", "-R", "--no-dereference", QStringLiteral("%1:%1").arg(playerUid),
                   "--", hostPath(inside)});
}

void FreshSystem::endEverythingInside() {
    if (holder_.state() != QProcess::NotRunning) {
        holder_.closeWriteChannel();
        if (!holder_.waitForFinished(60000)) {
            holder_.kill();
            holder_.waitForFinished(10000);
        }
    }
    for (const auto& process : started_)
        process->waitForFinished(10000);
    started_.clear();
    if (!namespace_.isEmpty() && !MountNamespace::members(namespace_).isEmpty())
        qWarning() << "processes are still left in the fresh" << suite() << "root's namespace";
}
