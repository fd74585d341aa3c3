// What the self-contained bundle costs a player, against the same launcher loading the system's
// libraries as it did before the bundle carried them.
//
// Size: the bundle on disk and the launcher archive `zentho-release pack` makes of it (what a
// player downloads and every self-update fetches; goal <= 40 MB).
//
// Start: the real launcher of this build, started again and again, timed from its start to the
// first frame it draws (offscreen, software rendering; the frame is seen through Qt's own
// render-loop log on standard error), alternately from the bundle as built and from a copy that
// carries none of the libraries, plugins or QML modules and has no RUNPATH, so that it loads the
// system's, as the launcher did before. Cold: the page cache is dropped before each start (root
// only); warm: it is not. Goal: self-contained within 1.10 x the system's.
//
// Memory: each variant's idle memory once it has drawn: resident and private dirty (what the
// process itself costs, shared library pages aside). Goal: no higher.
//
//   BenchBundle            9 starts of each kind
//   BenchBundle 21         more

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QThread>

#include <algorithm>
#include <cstdio>

#include <unistd.h>

namespace {

QString buildDir() {
    return QCoreApplication::applicationDirPath() + QStringLiteral("/..");
}

bool runQuietly(const QString& program, const QStringList& arguments, QByteArray* output = nullptr) {
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, arguments);
    const bool ok = process.waitForFinished(600000) && process.exitStatus() == QProcess::NormalExit &&
                    process.exitCode() == 0;
    if (output)
        *output = process.readAll();
    if (!ok)
        std::fprintf(stderr, "%s failed: %s\n", qPrintable(program), process.readAll().constData());
    return ok;
}

qint64 folderBytes(const QString& folder, int* libraries = nullptr) {
    qint64 total = 0;
    QDirIterator it(folder, QDir::Files | QDir::Hidden | QDir::System, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        it.next();
        if (!it.fileInfo().isSymLink())
            total += it.fileInfo().size();
        if (libraries && it.fileName().contains(QStringLiteral(".so")))
            ++*libraries;
    }
    return total;
}

// A copy of `bundle` that loads the system's libraries, plugins and QML modules.
bool systemLibrariesCopy(const QString& bundle, const QString& copy) {
    if (!runQuietly(QStringLiteral("cp"), {QStringLiteral("-a"), bundle, copy}))
        return false;
    const QString contents = copy + QStringLiteral("/Contents");
    for (const QString& carried : QDir(contents + QStringLiteral("/Frameworks")).entryList(QDir::Files))
        if (carried != QLatin1String("libzentho-launcher.so"))
            QFile::remove(contents + QStringLiteral("/Frameworks/") + carried);
    QDir(contents + QStringLiteral("/PlugIns")).removeRecursively();
    QDir(contents + QStringLiteral("/Resources/qml")).removeRecursively();
    QFile::remove(contents + QStringLiteral("/MacOS/qt.conf"));
    // Unsealed, as launchers were before: the starter then leaves missing libraries to the loader.
    QDir(contents + QStringLiteral("/_CodeSignature")).removeRecursively();
    return runQuietly(QStringLiteral("patchelf"),
                      {QStringLiteral("--remove-rpath"), contents + QStringLiteral("/Frameworks/libzentho-launcher.so")});
}

bool dropPageCache() {
    ::sync();
    QFile drop(QStringLiteral("/proc/sys/vm/drop_caches"));
    return drop.open(QIODevice::WriteOnly) && drop.write("3\n") == 2;
}

struct Start {
    double firstFrameMs = -1;
    long residentKiB = -1;
    long privateDirtyKiB = -1;
};

long smapsField(qint64 pid, const QByteArray& field) {
    QFile rollup(QStringLiteral("/proc/%1/smaps_rollup").arg(pid));
    if (!rollup.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray& line : rollup.readAll().split('\n'))
        if (line.startsWith(field + ':'))
            return line.mid(field.size() + 1).trimmed().split(' ').first().toLong();
    return -1;
}

// Starts the launcher of `bundle` on a fresh data folder and times it to its first frame; reads its
// memory a second later, when it has settled.
Start startOnce(const QString& bundle, bool cold) {
    QTemporaryDir data;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("XDG_DATA_HOME"), data.path());
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    env.insert(QStringLiteral("QT_QUICK_BACKEND"), QStringLiteral("software"));
    env.insert(QStringLiteral("QT_LOGGING_RULES"), QStringLiteral("qt.scenegraph.time.renderloop=true"));
    if (cold && !dropPageCache())
        std::fprintf(stderr, "cannot drop the page cache (needs root): the cold start is warm\n");
    QProcess launcher;
    launcher.setProcessEnvironment(env);
    launcher.setStandardOutputFile(QProcess::nullDevice());
    launcher.setReadChannel(QProcess::StandardError);
    Start start;
    QElapsedTimer clock;
    clock.start();
    launcher.start(bundle + QStringLiteral("/Contents/MacOS/ZenthoLauncher"), {});
    QByteArray errors;
    QDeadlineTimer deadline(30000);
    while (!deadline.hasExpired() && launcher.state() != QProcess::NotRunning) {
        if (launcher.waitForReadyRead(50)) {
            errors += launcher.readAllStandardError();
            if (errors.contains("Frame rendered")) {
                start.firstFrameMs = clock.nsecsElapsed() / 1e6;
                break;
            }
        }
    }
    if (start.firstFrameMs < 0)
        std::fprintf(stderr, "no frame from %s: %s\n", qPrintable(bundle), errors.constData());
    QThread::sleep(1);
    start.residentKiB = smapsField(launcher.processId(), "Rss");
    start.privateDirtyKiB = smapsField(launcher.processId(), "Private_Dirty");
    launcher.kill();
    launcher.waitForFinished();
    return start;
}

template <typename Field>
double median(const QList<Start>& starts, Field field) {
    QList<double> values;
    for (const Start& start : starts)
        values << double(start.*field);
    std::sort(values.begin(), values.end());
    return values.isEmpty() ? -1 : values[values.size() / 2];
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const int starts = argc > 1 ? std::atoi(argv[1]) : 9;
    const QString bundle = QDir::cleanPath(buildDir() + QStringLiteral("/ZenthoLauncher.app"));
    QTemporaryDir scratch;

    int libraries = 0;
    const qint64 onDisk = folderBytes(bundle, &libraries);
    std::printf("bundle: %s, %.1f MB on disk, %d shared libraries and plugins\n", qPrintable(bundle),
                onDisk / 1e6, libraries);

    QByteArray packed;
    if (!runQuietly(buildDir() + QStringLiteral("/tools/zentho-release"),
                    {QStringLiteral("pack"), QStringLiteral("--platform"), QStringLiteral("macos-launcher-arm64"),
                     QStringLiteral("--version"), QStringLiteral(ZENTHO_BENCH_LAUNCHER_VERSION),
                     QStringLiteral("--executable"), QStringLiteral("ZenthoLauncher.app"),
                     QStringLiteral("--url-base"), QStringLiteral("https://release.example/release"),
                     QStringLiteral("--out"), scratch.filePath(QStringLiteral("dist")), bundle},
                    &packed))
        return 1;
    const QRegularExpressionMatch size = QRegularExpression(QStringLiteral("size: (\\d+)")).match(QString::fromUtf8(packed));
    const double archiveMB = size.captured(1).toLongLong() / 1e6;
    std::printf("launcher_archive_size: %.1f MB (goal <= 40 MB: %s)\n", archiveMB, archiveMB <= 40 ? "met" : "missed");

    const QString system = scratch.filePath(QStringLiteral("ZenthoLauncher.app"));
    if (!systemLibrariesCopy(bundle, system))
        return 1;

    for (const bool cold : {true, false}) {
        QList<Start> carried;
        QList<Start> fromSystem;
        startOnce(bundle, false); // the first start of each fills what stays cached between them
        startOnce(system, false);
        for (int i = 0; i < starts; ++i) {
            carried << startOnce(bundle, cold);
            fromSystem << startOnce(system, cold);
        }
        const char* kind = cold ? "cold" : "warm";
        const double a = median(carried, &Start::firstFrameMs);
        const double b = median(fromSystem, &Start::firstFrameMs);
        std::printf("%s_start_to_first_frame: self-contained %.0f ms, system libraries %.0f ms (median of %d), "
                    "ratio %.2f (goal <= 1.10: %s)\n",
                    kind, a, b, starts, a / b, a / b <= 1.10 ? "met" : "missed");
        if (!cold) {
            const double rssA = median(carried, &Start::residentKiB);
            const double rssB = median(fromSystem, &Start::residentKiB);
            const double dirtyA = median(carried, &Start::privateDirtyKiB);
            const double dirtyB = median(fromSystem, &Start::privateDirtyKiB);
            std::printf("idle_resident: self-contained %.1f MiB, system libraries %.1f MiB\n", rssA / 1024, rssB / 1024);
            std::printf("idle_private_dirty: self-contained %.1f MiB, system libraries %.1f MiB (goal: no higher: %s)\n",
                        dirtyA / 1024, dirtyB / 1024, dirtyA <= dirtyB ? "met" : "missed");
        }
    }
    return 0;
}
