// The real launcher against servers that answer with what no release server sends: endless
// manifests, a manifest that trickles in, an endless archive, and 407 answers. Whatever they
// send, the seed build starts, ended by the limit meant for that case (seen in what the server
// sent before the launcher stopped reading), the launcher's memory stays flat, the disk keeps its
// reserve, and no download is left behind.

#include "AdoptedProcesses.h"
#include "ChunkTraffic.h"
#include "FaultServer.h"
#include "LauncherBundles.h"
#include "LauncherStorage.h"
#include "ManifestJson.h"
#include "RealLauncher.h"
#include "TestFiles.h"
#include "TestRequirements.h"
#include "TestServer.h"

#include "net/TransferLimits.h"

#include <QCoreApplication>
#include <QScopeGuard>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <memory>
#include <optional>
#include <thread>

#include <sched.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace {

const QString kInvite = QStringLiteral("zentho://invite/hostile");
// Past this the launcher is stopped at once: the test must not take the machine down with it.
constexpr long kMemoryGuardKiB = 1024 * 1024;
// The launcher's whole peak may exceed an offline start by this much at most.
constexpr long kMemoryAllowanceKiB = 48 * 1024;
// A small file system for the launcher's storage, so that the free-space reserve is reached.
constexpr qint64 kSmallStorageSize = qint64(160) * 1024 * 1024;

qint64 freeBytesOf(const QString& folder) {
    struct statvfs fs {};
    if (::statvfs(QFile::encodeName(folder).constData(), &fs) != 0)
        return -1;
    return qint64(fs.f_bavail) * qint64(fs.f_frsize);
}

long peakMemoryKiB(qint64 pid) {
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray& line : status.readAll().split('\n'))
        if (line.startsWith("VmHWM:"))
            return line.mid(6).trimmed().split(' ').first().toLong();
    return -1;
}

// The lowest free space a folder's file system showed while this object lived, sampled every
// 2 ms on a thread of its own so that a disk filled and emptied again between two samples of
// the test's loop is still seen.
class FreeSpaceWatch {
public:
    explicit FreeSpaceWatch(const QString& folder)
        : lowest_(freeBytesOf(folder)), thread_([this, folder] {
              while (!done_) {
                  const qint64 free = freeBytesOf(folder);
                  if (free >= 0 && free < lowest_)
                      lowest_ = free;
                  std::this_thread::sleep_for(std::chrono::milliseconds(2));
              }
          }) {}
    ~FreeSpaceWatch() {
        done_ = true;
        thread_.join();
    }
    qint64 lowest() const { return lowest_; }

private:
    std::atomic<bool> done_{false};
    std::atomic<qint64> lowest_;
    std::thread thread_;
};

// One run of the real launcher, observed from outside.
struct Observed {
    bool gameStarted = false;
    long peakKiB = -1;
    std::optional<int> exitCode;
    QStringList leftovers; // downloads left in the storage or the temporary folder
    QByteArray errors;
};

// The bytes nginx sent of the first GET of `path` in its log, or -1 when it has not logged it.
qint64 bytesSentFor(const TestServer& server, const QString& path) {
    for (const ChunkTraffic::Get& get : ChunkTraffic::getsIn(server.accessLog())) {
        if (get.path == path)
            return get.bytes;
    }
    return -1;
}

// How often nginx logged a GET of `path` answered with `status`.
qsizetype answers(const TestServer& server, const QString& path, int status) {
    const QList<ChunkTraffic::Get> gets = ChunkTraffic::getsIn(server.accessLog());
    return std::count_if(gets.cbegin(), gets.cend(),
                         [&](const ChunkTraffic::Get& get) { return get.path == path && get.status == status; });
}

} // namespace

class TestHostileServers : public QObject {
    Q_OBJECT

    std::unique_ptr<TestServer> server_;
    QTemporaryDir* tmp_ = nullptr;
    long offlinePeakKiB_ = -1;
    std::optional<AdoptedProcesses> adopted_;

    QString path(const QString& relative) const { return tmp_->filePath(relative); }
    LauncherStorage storage() const { return LauncherStorage(path(QStringLiteral("data"))); }
    QString missingFile() const { return QUrl::fromLocalFile(path(QStringLiteral("none.json"))).toString(); }

    // Runs the real launcher with these manifest addresses and its temporary folder at
    // `temporary`, until the game starts or `timeoutMs` passes (a bound on a broken launcher,
    // not on a working one); the launcher is killed when it grows past the guard.
    Observed run(const QString& gameManifest, const QString& launcherManifest, const QString& temporary,
                 int timeoutMs) {
        const QString record = path(QStringLiteral("record"));
        QFile::remove(record);
        RealLauncher launcher(LauncherBundles::builtBundle(), path(QStringLiteral("data")));
        launcher.useManifests(gameManifest, launcherManifest);
        launcher.recordGameStartIn(record);
        launcher.environment().insert(QStringLiteral("TMPDIR"), temporary);
        // A sanitizer build keeps freed memory in quarantine (256 MiB by default), which would
        // read as growth; a small one keeps its peak close to what the launcher holds. Other
        // builds ignore the variable.
        const QString sanitizer = launcher.environment().value(QStringLiteral("ASAN_OPTIONS"));
        launcher.environment().insert(QStringLiteral("ASAN_OPTIONS"),
                                      (sanitizer.isEmpty() ? QString() : sanitizer + QLatin1Char(':')) +
                                          QStringLiteral("quarantine_size_mb=16"));

        Observed seen;
        launcher.start(*server_, kInvite);
        qint64 pid = 0;
        for (QDeadlineTimer deadline(timeoutMs); !deadline.hasExpired();) {
            if (pid == 0) // this launcher, not another test's launcher of the same bundle
                pid = launcher.launcherPid(0);
            if (pid != 0) {
                const long peak = peakMemoryKiB(pid);
                if (peak > seen.peakKiB)
                    seen.peakKiB = peak;
                if (peak > kMemoryGuardKiB) {
                    ::kill(pid_t(pid), SIGKILL);
                    break;
                }
            }
            if (QFileInfo::exists(record)) {
                seen.gameStarted = true;
                break;
            }
            QTest::qWait(20);
        }
        seen.exitCode = launcher.waitForExit(10000);
        seen.errors = launcher.errors();
        seen.leftovers = QDir(temporary).entryList({QStringLiteral("zentho-*")}, QDir::Files) +
                         QDir(storage().downloads())
                             .entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
        if (seen.gameStarted) {
            const QByteArray recorded = RealLauncher::waitForGameRecord(record);
            if (!recorded.startsWith("version=0.1.190\n"))
                seen.gameStarted = false; // only the seed build is ever offered here
            RealLauncher::terminateAndCollect(RealLauncher::recordedPid(recorded));
        }
        return seen;
    }

    // The common outcome: the seed build started, the launcher quit by itself, memory stayed
    // near an offline start and nothing was left behind.
    void verifySeedStarted(const Observed& seen) {
        qInfo("launcher peak %ld KiB (offline start %ld KiB)", seen.peakKiB, offlinePeakKiB_);
        QVERIFY2(seen.gameStarted, seen.errors.constData());
        QCOMPARE(seen.exitCode, std::optional<int>(0));
        QVERIFY2(seen.peakKiB > 0 && seen.peakKiB < offlinePeakKiB_ + kMemoryAllowanceKiB,
                 qPrintable(QStringLiteral("peak %1 KiB").arg(seen.peakKiB)));
        QCOMPARE(seen.leftovers, QStringList());
    }

private slots:
    void initTestCase() {
        ZENTHO_REQUIRE(root);
        ZENTHO_REQUIRE(nginx);
        QVERIFY(RealLauncher::becomeSubreaper());
        QVERIFY2(QFileInfo::exists(LauncherBundles::builtBundle()), "the launcher bundle is not built");
        server_ = std::make_unique<TestServer>();
        // The reference: the same launcher offline, falling back to its seed build at once.
        tmp_ = new QTemporaryDir;
        TestFiles::makeFolder(path(QStringLiteral("tmp")));
        const Observed offline = run(missingFile(), missingFile(), path(QStringLiteral("tmp")), 30000);
        QVERIFY2(offline.gameStarted, offline.errors.constData());
        QVERIFY(offline.peakKiB > 0);
        offlinePeakKiB_ = offline.peakKiB;
        delete tmp_;
        tmp_ = nullptr;
    }
    void init() {
        tmp_ = new QTemporaryDir;
        adopted_.emplace();
        TestFiles::makeFolder(path(QStringLiteral("tmp")));
    }
    void cleanup() {
        adopted_.reset();
        delete tmp_;
        tmp_ = nullptr;
    }

    // The size cap ends an endless manifest: the launcher stops reading just past it, far from
    // what the other limits would let through at this speed.
    void endlessManifest_data() {
        QTest::addColumn<bool>("game");
        QTest::newRow("game") << true;
        QTest::newRow("launcher") << false;
    }
    void endlessManifest() {
        QFETCH(bool, game);
        const qint64 before = server_->faultServer().bytesSent();
        const QString endless = server_->url(QStringLiteral("/fault/endless")).toString();
        const Observed seen = run(game ? endless : missingFile(), game ? missingFile() : endless,
                                  path(QStringLiteral("tmp")), 120000);
        verifySeedStarted(seen);
        if (QTest::currentTestFailed())
            return;
        const qint64 sent = server_->faultServer().bytesSent() - before;
        qInfo("the endless manifest stopped after %lld bytes", sent);
        QVERIFY2(sent > TransferLimits::defaultMaximumManifestBytes && sent < 64 * 1024 * 1024,
                 qPrintable(QString::number(sent)));
    }

    // 4 KiB/s is above the throughput floor, so only the manifest's own deadline ends the wait:
    // the launcher stops reading before the body's end, and not before nginx, which sends at
    // that rate, has sent what the deadline lets through. The time is the server's, counted in
    // bytes; a busy machine can only make the launcher stop later, never earlier.
    void tricklingGameManifest() {
        constexpr qint64 size = 400 * 1024;
        constexpr qint64 rate = 4 * 1024; // nginx's limit_rate on /trickle/
        server_->writeFile(QStringLiteral("slow/game.json"), QByteArray(size, ' '));
        const Observed seen = run(server_->url(QStringLiteral("/trickle/slow/game.json")).toString(),
                                  missingFile(), path(QStringLiteral("tmp")), 120000);
        verifySeedStarted(seen);
        if (QTest::currentTestFailed())
            return;
        qint64 sent = -1;
        QVERIFY(QTest::qWaitFor([&] { return (sent = bytesSentFor(*server_, QStringLiteral("/trickle/slow/game.json"))) >= 0; },
                                30000));
        const qint64 deadlineSeconds =
            std::chrono::duration_cast<std::chrono::seconds>(TransferLimits::defaultManifestDeadline).count();
        qInfo("the trickling manifest stopped after %lld of %lld bytes", sent, size);
        QVERIFY2(sent < size, qPrintable(QString::number(sent)));
        QVERIFY2(sent >= (deadlineSeconds - 1) * rate, qPrintable(QString::number(sent)));
    }

    // The storage is a small file system of this test's own: the endless body must stop while the
    // reserve is still free, and its file must go.
    void endlessArchive() {
        const QString small = path(QStringLiteral("data"));
        TestFiles::makeFolder(small);
        const QByteArray size = "size=" + QByteArray::number(kSmallStorageSize);
        QVERIFY2(::mount("zentho-test-tmp", QFile::encodeName(small).constData(), "tmpfs", 0, size.constData()) == 0,
                 "could not mount a small tmpfs");
        const auto unmount = qScopeGuard([&] { ::umount2(QFile::encodeName(small).constData(), MNT_DETACH); });

        server_->writeFile(QStringLiteral("endless-archive.json"),
                           ManifestJson(QStringLiteral("0.2.0"), server_->url(QStringLiteral("/fault/endless")).toString(),
                                        QString(64, QLatin1Char('0'))));
        Observed seen;
        qint64 lowestFree = 0;
        const qint64 before = server_->faultServer().bytesSent();
        {
            const FreeSpaceWatch watch(small);
            seen = run(server_->url(QStringLiteral("/endless-archive.json")).toString(), missingFile(),
                       path(QStringLiteral("tmp")), 120000);
            lowestFree = watch.lowest();
        }
        qInfo("lowest free space on the %lld MiB storage: %lld KiB", kSmallStorageSize >> 20,
              lowestFree / 1024);
        verifySeedStarted(seen);
        if (QTest::currentTestFailed())
            return;
        // The reserve ended the download: it went on until the disk came near the reserve (less
        // what the sockets on the way still held), and no further than the reserve less what
        // one read may add before the check sees it.
        const qint64 sent = server_->faultServer().bytesSent() - before;
        qInfo("the endless archive stopped after %lld MiB", sent >> 20);
        QVERIFY2(sent >= kSmallStorageSize - TransferLimits::defaultFreeSpaceReserve - 16 * 1024 * 1024,
                 qPrintable(QString::number(sent)));
        QVERIFY2(lowestFree >= TransferLimits::defaultFreeSpaceReserve - 1024 * 1024,
                 qPrintable(QString::number(lowestFree)));
        QCOMPARE(freeBytesOf(small), kSmallStorageSize);
        QVERIFY(!QFileInfo::exists(storage().build(QStringLiteral("0.2.0"))));
    }

    // A 407 on either manifest or on the archive is an answer, and the seed build starts.
    void status407Everywhere() {
        const QString noDigest(64, QLatin1Char('0'));
        server_->writeFile(QStringLiteral("407/launcher.json"),
                           ManifestJson::launcher(QStringLiteral("0.1.190"), QStringLiteral("https://127.0.0.1:1/x"), noDigest));
        server_->writeFile(QStringLiteral("407/game.json"),
                           ManifestJson(QStringLiteral("0.2.0"),
                                        server_->url(QStringLiteral("/status/407/build.tar.gz")).toString(), noDigest));
        server_->writeFile(QStringLiteral("build.tar.gz"), "not really an archive");
        const Observed seen = run(server_->url(QStringLiteral("/status/407/407/game.json")).toString(),
                                  server_->url(QStringLiteral("/status/407/407/launcher.json")).toString(),
                                  path(QStringLiteral("tmp")), 120000);
        verifySeedStarted(seen);
        if (QTest::currentTestFailed())
            return;
        // Each answer was taken as it came, once: nothing was asked again.
        QCOMPARE(answers(*server_, QStringLiteral("/status/407/407/game.json"), 407), 1);
        QCOMPARE(answers(*server_, QStringLiteral("/status/407/407/launcher.json"), 407), 1);
        const Observed archive = run(server_->url(QStringLiteral("/407/game.json")).toString(),
                                     server_->url(QStringLiteral("/407/launcher.json")).toString(),
                                     path(QStringLiteral("tmp")), 120000);
        verifySeedStarted(archive);
        QCOMPARE(answers(*server_, QStringLiteral("/status/407/build.tar.gz"), 407), 1);
        QVERIFY(!QFileInfo::exists(storage().build(QStringLiteral("0.2.0"))));
    }

    void cleanupTestCase() { server_.reset(); }
};

int main(int argc, char** argv) {
    // A mount namespace of this test's own, entered while it is still one thread: the small
    // temporary file system it mounts is seen by its launchers and by nobody else, and goes
    // when the test ends.
    // Without root there is none; initTestCase() then says why the test does not run.
    if (::geteuid() == 0 &&
        (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)) {
        std::perror("TestHostileServers: private mount namespace");
        return 1;
    }
    QCoreApplication app(argc, argv);
    TestHostileServers test;
    return QTest::qExec(&test, argc, argv);
}

#include "TestHostileServers.moc"
