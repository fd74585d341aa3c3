#include "BenchPress.h"

#include "LauncherBundles.h"
#include "RealLauncher.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QThread>

#include <algorithm>
#include <cstdio>
#include <functional>

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace {

const QString kNoLauncherUpdate = QStringLiteral("file:///dev/null/no-launcher-manifest.json");

} // namespace

bool restore(const QString& pristine, const QString& data) {
    return QDir(data).removeRecursively() &&
           QProcess::execute(QStringLiteral("/bin/cp"), {QStringLiteral("-a"), pristine, data}) == 0;
}

qint64 diskUse(const QString& folder) {
    qint64 total = 0;
    QDirIterator it(folder, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        struct stat info {};
        if (::lstat(QFile::encodeName(it.next()).constData(), &info) == 0)
            total += qint64(info.st_blocks) * 512;
    }
    return total;
}


// Bytes in use on the file system that holds `folder`, counting what written data will take
// before its blocks are allocated (ext4 does): one system call, where walking a growing build of
// thousands of files every few milliseconds competed for the CPU with the launcher being timed,
// and a walk that crossed the build's move into place counted the build twice.
qint64 fileSystemUse(const QString& folder) {
    struct statvfs info {};
    if (::statvfs(QFile::encodeName(folder).constData(), &info) != 0)
        return 0;
    return qint64(info.f_blocks - info.f_bfree) * qint64(info.f_frsize);
}

// Presses the button once on the storage `data`, watching every few milliseconds for signs of the
// install's steps in the storage and for the game's record.
Press press(const TestServer& server, const QString& data, const QString& manifestUrl, const QString& record,
            const QString& version) {
    QFile::remove(record);
    const QString root = data + QStringLiteral("/Zentho/launcher");
    const auto holds = [](const QString& folder, const QStringList& names = {}) {
        return !QDir(folder).entryList(names, QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot).isEmpty();
    };
    const QList<QPair<QString, std::function<bool()>>> watched{
        {QStringLiteral("archive bytes arriving"), [&] { return holds(root + QStringLiteral("/downloads")); }},
        {QStringLiteral("first chunk kept"), [&] { return holds(root + QStringLiteral("/chunks")); }},
        {QStringLiteral("staging made"),
         [&] { return holds(root, {QStringLiteral("staging-*"), QStringLiteral("chunk-build-*")}); }},
        {QStringLiteral("build in place"), [&] { return QFileInfo::exists(root + QStringLiteral("/versions/") + version); }},
    };
    QList<bool> pending; // a sign there from the start tells nothing
    for (const auto& sign : watched)
        pending << !sign.second();

    // Each press starts with nothing waiting to be written back: what an earlier one wrote would
    // otherwise slow this one down.
    ::sync();
    QDir().mkpath(data);
    const qint64 diskBefore = fileSystemUse(data);
    RealLauncher launcher(LauncherBundles::builtBundle(), data);
    launcher.useManifests(manifestUrl, kNoLauncherUpdate);
    launcher.recordGameStartIn(record);
    Press result;
    QElapsedTimer clock;
    clock.start();
    launcher.start(server, QStringLiteral("zentho://invite/bench-chunked-update"));
    QByteArray recorded;
    double chunksLooked = -1;
    for (QDeadlineTimer deadline(240000); !deadline.hasExpired();) {
        const double now = double(clock.nsecsElapsed()) / 1e9;
        for (int i = 0; i < watched.size(); ++i) {
            if (pending[i] && watched[i].second()) {
                pending[i] = false;
                result.signs.append({watched[i].first, now});
            }
        }
        if (const qint64 used = fileSystemUse(data) - diskBefore; used > result.peakDisk) {
            result.peakDisk = used;
            // The cache is small, but not looked at more often than the build grows by much.
            if (now - chunksLooked > 0.05) {
                result.peakChunks = diskUse(root + QStringLiteral("/chunks"));
                chunksLooked = now;
            }
        }
        QFile file(record);
        if (file.open(QIODevice::ReadOnly))
            recorded = file.readAll();
        if (RealLauncher::recordedPid(recorded) > 0 && recorded.endsWith('\n')) {
            result.seconds = now;
            break;
        }
        QCoreApplication::processEvents();
        QThread::msleep(5);
    }
    const qsizetype cwd = recorded.indexOf("\ncwd=") + 5;
    result.cwd = cwd < 5 ? QString() : QString::fromLocal8Bit(recorded.mid(cwd, recorded.indexOf('\n', cwd) - cwd));
    // The launcher watches the game for a moment before it quits: a game ended sooner keeps it open.
    result.exit = launcher.waitForExit(30000);
    result.errors = launcher.errors();
    if (const qint64 pid = RealLauncher::recordedPid(recorded); pid > 0)
        RealLauncher::terminateAndCollect(pid);
    return result;
}


int logLines(const TestServer& server) {
    return int(server.accessLog().split(QLatin1Char('\n'), Qt::SkipEmptyParts).size());
}

Traffic trafficSince(const TestServer& server, int from) {
    static const QRegularExpression request(QStringLiteral("\"GET (\\S+) [^\"]*\" (\\d+) (\\d+)"));
    const QStringList lines = server.accessLog().split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    Traffic traffic;
    for (qsizetype i = from; i < lines.size(); ++i) {
        const QRegularExpressionMatch match = request.match(lines[i]);
        const QString path = match.captured(1);
        Sent* kind = path.endsWith(QLatin1String(".tar.gz"))           ? &traffic.archive
                     : path.contains(QLatin1String(".chunks.json"))    ? &traffic.index
                     : path.endsWith(QLatin1String(".chunks.pack")) ||
                             path.contains(QLatin1String("/chunks"))   ? &traffic.chunks
                                                                       : nullptr;
        if (!kind)
            continue;
        kind->bytes += match.captured(3).toLongLong();
        ++kind->requests;
        traffic.failed += match.captured(2) == QLatin1String("200") || match.captured(2) == QLatin1String("206") ? 0 : 1;
    }
    return traffic;
}

// A snapshot without the files' modification times: the index carries none, so a build put
// together from chunks has the times it was written at, where tar gives the archive's.
QStringList withoutTimes(const QStringList& snapshot) {
    QStringList lines;
    for (const QString& line : snapshot) {
        QStringList fields = line.split(QLatin1Char(' '));
        if (fields.size() >= 6 && fields[1] == QLatin1String("file"))
            fields.removeAt(5);
        lines << fields.join(QLatin1Char(' '));
    }
    return lines;
}


void printRun(const QString& name, const Run& run) {
    const Traffic& t = run.traffic;
    std::printf("%-3s press->game %6.2f s, sent %10lld bytes (archive %d req %lld B, index %d req %lld B, chunks %d req "
                "%lld B)%s\n",
                qPrintable(name), run.press.seconds, t.total(),
                t.archive.requests, t.archive.bytes, t.index.requests, t.index.bytes, t.chunks.requests,
                t.chunks.bytes, t.failed ? " SOME NEITHER 200 NOR 206" : "");
    QString steps;
    for (const auto& [sign, at] : run.press.signs)
        steps += QStringLiteral("%1 %2 s, ").arg(sign).arg(at, 0, 'f', 2);
    std::printf("    steps: %sgame running %.2f s\n", qPrintable(steps), run.press.seconds);
}

double stepAt(const Press& press, const char* sign) {
    for (const auto& [name, at] : press.signs) {
        if (name == QLatin1String(sign))
            return at;
    }
    return -1;
}

