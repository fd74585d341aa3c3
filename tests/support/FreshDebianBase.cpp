#include "FreshDebianBase.h"

#include "MountNamespace.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QSaveFile>

#include <stdexcept>

#include <sys/file.h>

namespace {

// What every desktop has, and nothing of what the launcher's build needs (Qt, QCoro, ICU,
// isa-l, zstd): the bundle must bring those itself. Names checked with apt-cache inside each
// suite's minbase root.
//
//   X11 and xcb clients: every runtime library of the libxcb source package (the xcb-util-*
//     ones, such as libxcb-icccm4 that Qt's xcb platform needs, are not among them), Xlib and
//     its xcb bridge, xkbcommon and its X11 part
//       libxcb1 libxcb-composite0 libxcb-damage0 libxcb-dpms0 libxcb-dri2-0 libxcb-dri3-0
//       libxcb-glx0 libxcb-present0 libxcb-randr0 libxcb-record0 libxcb-render0 libxcb-res0
//       libxcb-screensaver0 libxcb-shape0 libxcb-shm0 libxcb-sync1 libxcb-xf86dri0
//       libxcb-xfixes0 libxcb-xinerama0 libxcb-xinput0 libxcb-xkb1 libxcb-xtest0 libxcb-xv0
//       libxcb-xvmc0 libx11-6 libx11-xcb1 libxkbcommon0 libxkbcommon-x11-0
//   GL and EGL through glvnd, which pull Mesa: libgl1 libegl1
//   fonts: fontconfig fonts-dejavu-core
//   D-Bus: libdbus-1-3 dbus
//   TLS and the system's CA store: openssl ca-certificates
//   zlib1g xdg-utils
//   bookworm: libglib2.0-0 libssl3        trixie: libglib2.0-0t64 libssl3t64 (the 64-bit time_t
//                                         rebuilds)
//
// Mesa comes with LLVM. On bookworm LLVM 15 needs libxml2, and that libxml2 needs ICU 72, so a
// Debian 12 desktop with GL has libicuuc.so.72 whether anything asked for it or not; trixie's
// libxml2 no longer needs ICU. Both minbase roots hold libzstd1 already (apt needs it).
const QStringList commonPackages{"libxcb1",
                                 "libxcb-composite0",
                                 "libxcb-damage0",
                                 "libxcb-dpms0",
                                 "libxcb-dri2-0",
                                 "libxcb-dri3-0",
                                 "libxcb-glx0",
                                 "libxcb-present0",
                                 "libxcb-randr0",
                                 "libxcb-record0",
                                 "libxcb-render0",
                                 "libxcb-res0",
                                 "libxcb-screensaver0",
                                 "libxcb-shape0",
                                 "libxcb-shm0",
                                 "libxcb-sync1",
                                 "libxcb-xf86dri0",
                                 "libxcb-xfixes0",
                                 "libxcb-xinerama0",
                                 "libxcb-xinput0",
                                 "libxcb-xkb1",
                                 "libxcb-xtest0",
                                 "libxcb-xv0",
                                 "libxcb-xvmc0",
                                 "libx11-6",
                                 "libx11-xcb1",
                                 "libxkbcommon0",
                                 "libxkbcommon-x11-0",
                                 "libgl1",
                                 "libegl1",
                                 "fontconfig",
                                 "fonts-dejavu-core",
                                 "libdbus-1-3",
                                 "dbus",
                                 "openssl",
                                 "ca-certificates",
                                 "zlib1g",
                                 "xdg-utils"};

// Run as root inside a private mount namespace, so the /proc mounted for apt (and whatever
// debootstrap mounts) goes with the namespace even when the creation is killed halfway.
// Arguments: the root, then the packages.
const char* const provisionScript = R"(set -eu
root=$1
shift
cp -L /etc/resolv.conf "$root/etc/resolv.conf"
# Installing dbus must not start a system bus, here or anywhere.
printf '#!/bin/sh\nexit 101\n' > "$root/usr/sbin/policy-rc.d"
chmod 755 "$root/usr/sbin/policy-rc.d"
mount -t proc proc "$root/proc"
apt="apt-get -q -y -o Acquire::Retries=3 -o Acquire::http::Timeout=30 -o Dpkg::Use-Pty=0"
chroot "$root" $apt update
chroot "$root" $apt install --no-install-recommends "$@"
chroot "$root" apt-get clean
umount "$root/proc"
rm -f "$root/usr/sbin/policy-rc.d"
# Package lists (80 MB), documentation and translations (60 MB): nothing a test reads.
rm -rf "$root"/var/lib/apt/lists/* "$root"/usr/share/doc/* "$root"/usr/share/man/* \
    "$root"/usr/share/info/*
find "$root/usr/share/locale" -mindepth 1 -maxdepth 1 -type d -exec rm -rf {} +
)";

[[noreturn]] void fail(const QString& what) {
    throw std::runtime_error(what.toStdString());
}

QString lastLines(const QString& path, int count) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    const QStringList lines = QString::fromUtf8(file.readAll()).trimmed().split(QLatin1Char('\n'));
    return lines.mid(qMax(0, int(lines.size()) - count)).join(QLatin1Char('\n'));
}

// Removes a half-made or outdated root without ever following a mount out of it.
void removeTree(const QString& path) {
    if (!QFileInfo::exists(path))
        return;
    const QStringList mounted = MountNamespace::mountPointsUnder(path);
    if (!mounted.isEmpty())
        fail(QStringLiteral("cannot remove %1: still mounted there: %2")
                 .arg(path, mounted.join(", ")));
    QProcess rm;
    rm.setProcessChannelMode(QProcess::MergedChannels);
    rm.start(QStringLiteral("/bin/rm"), {"-rf", "--one-file-system", "--", path});
    if (!rm.waitForFinished(600000) || rm.exitCode() != 0 || QFileInfo::exists(path))
        fail(
            QStringLiteral("cannot remove %1: %2").arg(path, QString::fromLocal8Bit(rm.readAll())));
}

// Runs one step of the creation as root in a private mount namespace that dies with this
// process, appending its output to `log` and handing each line to `progress`. Returns whether
// it exited 0.
bool runStep(const QStringList& command, const QString& log, const QString& wgetrc,
             const FreshDebianBase::Progress& progress) {
    QFile out(log);
    if (!out.open(QIODevice::Append))
        fail(QStringLiteral("cannot write ") + log);
    out.write("$ " + command.join(QLatin1Char(' ')).toUtf8() + '\n');

    QProcess process;
    QProcessEnvironment environment;
    environment.insert(QStringLiteral("PATH"), QStringLiteral("/usr/sbin:/usr/bin:/sbin:/bin"));
    environment.insert(QStringLiteral("HOME"), QStringLiteral("/root"));
    environment.insert(QStringLiteral("LANG"), QStringLiteral("C.UTF-8"));
    environment.insert(QStringLiteral("DEBIAN_FRONTEND"), QStringLiteral("noninteractive"));
    // wget retries 20 times and waits 900 s a read by default: an archive that swallows
    // packets would look like a hang instead of a failure.
    environment.insert(QStringLiteral("WGETRC"), wgetrc);
    process.setProcessEnvironment(environment);
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(QStringLiteral("/usr/bin/setpriv"),
                  QStringList{"--pdeathsig", "KILL", "--", "/usr/bin/unshare", "--mount",
                              "--propagation", "private", "--"} +
                      command);
    if (!process.waitForStarted(10000)) {
        out.write(process.errorString().toUtf8() + '\n');
        return false;
    }
    QByteArray pending;
    const auto forward = [&](bool all) {
        pending += process.readAll();
        qsizetype end;
        while ((end = pending.indexOf('\n')) >= 0 || (all && !pending.isEmpty())) {
            const QByteArray line = end >= 0 ? pending.left(end) : pending;
            pending.remove(0, end >= 0 ? end + 1 : pending.size());
            out.write(line + '\n');
            if (progress)
                progress(QString::fromUtf8(line));
        }
        out.flush();
    };
    while (process.state() != QProcess::NotRunning) {
        process.waitForReadyRead(1000);
        forward(false);
    }
    forward(true);
    return process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
}

} // namespace

FreshDebianBase::Source FreshDebianBase::defaultSource() {
    QString cache = qEnvironmentVariable("ZENTHO_FRESH_SYSTEMS_DIR");
    if (cache.isEmpty() && !qEnvironmentVariableIsEmpty("ZENTHO_BUILD_DIR"))
        cache = qEnvironmentVariable("ZENTHO_BUILD_DIR") + QStringLiteral("/fresh-systems");
    return {cache, QStringLiteral("http://deb.debian.org/debian")};
}

FreshDebianBase::FreshDebianBase(const QString& suite, Source source)
    : suite_(suite), source_(std::move(source)) {
    if (suite_ != QStringLiteral("bookworm") && suite_ != QStringLiteral("trixie"))
        fail(QStringLiteral("no fresh system is known for the Debian suite \"%1\"").arg(suite_));
    if (source_.cacheFolder.isEmpty())
        fail(QStringLiteral("no cache folder for fresh systems: set ZENTHO_FRESH_SYSTEMS_DIR or "
                            "ZENTHO_BUILD_DIR (CTest sets both)"));
}

QStringList FreshDebianBase::desktopPackages(const QString& suite) {
    if (suite == QStringLiteral("bookworm"))
        return commonPackages + QStringList{"libglib2.0-0", "libssl3"};
    return commonPackages + QStringList{"libglib2.0-0t64", "libssl3t64"};
}

QString FreshDebianBase::folder() const {
    return source_.cacheFolder + QLatin1Char('/') + suite_;
}

QString FreshDebianBase::root() const {
    return folder() + QStringLiteral("/root");
}

QString FreshDebianBase::recipe() const {
    // Raise the first line's number when the steps change in a way the packages do not show.
    return QStringLiteral("fresh-system 1\ndebootstrap --variant=minbase %1\n"
                          "apt-get install --no-install-recommends %2\n")
        .arg(suite_, desktopPackages(suite_).join(QLatin1Char(' ')));
}

bool FreshDebianBase::ready() const {
    QFile stamp(folder() + QStringLiteral("/complete"));
    return QFileInfo(root()).isDir() && stamp.open(QIODevice::ReadOnly) &&
           stamp.readAll() == recipe().toUtf8();
}

QString FreshDebianBase::ensure(const Progress& progress) const {
    if (!QDir().mkpath(folder()))
        fail(QStringLiteral("cannot make ") + folder());
    QFile lock(folder() + QStringLiteral("/lock"));
    if (!lock.open(QIODevice::ReadWrite))
        fail(QStringLiteral("cannot open ") + lock.fileName());
    if (::flock(lock.handle(), LOCK_EX | LOCK_NB) != 0) {
        if (progress)
            progress(QStringLiteral("waiting for another process making the %1 base").arg(suite_));
        if (::flock(lock.handle(), LOCK_EX) != 0)
            fail(QStringLiteral("cannot lock ") + lock.fileName());
    }
    if (!ready())
        create(progress);
    return root();
}

void FreshDebianBase::create(const Progress& progress) const {
    const QString partial = folder() + QStringLiteral("/root.partial");
    const QString log = folder() + QStringLiteral("/create.log");
    const QString wgetrc = folder() + QStringLiteral("/wgetrc");
    const QString debootstrapLog = folder() + QStringLiteral("/debootstrap.log");

    QFile::remove(folder() + QStringLiteral("/complete"));
    removeTree(root());
    removeTree(partial);
    for (const QString& stale : {log, debootstrapLog})
        QFile::remove(stale);
    {
        QFile config(wgetrc);
        if (!config.open(QIODevice::WriteOnly | QIODevice::Truncate) ||
            config.write("tries = 3\ntimeout = 30\n") < 0)
            fail(QStringLiteral("cannot write ") + wgetrc);
    }
    if (progress)
        progress(QStringLiteral("making the %1 base in %2 from %3; this takes a few minutes")
                     .arg(suite_, folder(), source_.mirror));

    const auto failed = [&](const QString& step) {
        // debootstrap says only "see debootstrap.log", which lives in the root about to go.
        QFile::copy(partial + QStringLiteral("/debootstrap/debootstrap.log"), debootstrapLog);
        QString message = QStringLiteral("could not make the fresh Debian %1 system from %2: %3 "
                                         "failed. The last lines of %4:\n%5")
                              .arg(suite_, source_.mirror, step, log, lastLines(log, 25));
        if (QFileInfo::exists(debootstrapLog))
            message += QStringLiteral("\nThe last lines of %1:\n%2")
                           .arg(debootstrapLog, lastLines(debootstrapLog, 15));
        removeTree(partial);
        fail(message);
    };
    if (!runStep({"/usr/sbin/debootstrap", "--variant=minbase", suite_, partial, source_.mirror},
                 log, wgetrc, progress))
        failed(QStringLiteral("debootstrap"));
    if (!runStep(QStringList{"/bin/sh", "-c", provisionScript, "provision", partial} +
                     desktopPackages(suite_),
                 log, wgetrc, progress))
        failed(QStringLiteral("installing the desktop packages"));

    if (!QDir().rename(partial, root()))
        failed(QStringLiteral("renaming the finished root"));
    QSaveFile stamp(folder() + QStringLiteral("/complete"));
    if (!stamp.open(QIODevice::WriteOnly) || stamp.write(recipe().toUtf8()) < 0 || !stamp.commit())
        fail(QStringLiteral("cannot write the stamp in ") + folder());
    if (progress)
        progress(QStringLiteral("the %1 base is ready").arg(suite_));
}
