// The real launcher against servers that answer with what no release server sends: endless
// manifests, a manifest that trickles in, an endless archive, and 407 answers. Whatever they
// send, the seed build starts within a bounded time, the launcher's memory stays flat, the disk
// keeps its reserve, and no download is left behind.

#include "FaultServer.h"
#include "LauncherBundles.h"
#include "RealLauncher.h"
#include "TestFiles.h"
#include "TestServer.h"

#include "net/TransferLimits.h"

#include <QCoreApplication>
#include <QScopeGuard>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QTest>

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
    qint64 startedAfterMs = -1;
    long peakKiB = -1;
    std::optional<int> exitCode;
    QStringList leftovers; // downloads left in the storage or the temporary folder
    QByteArray errors;
};

QByteArray manifestJson(const QString& version, const QString& platform, const QString& url) {
    return QJsonDocument(QJsonObject{{"version", version},
                                     {"platform", platform},
                                     {"url", url},
                                     {"sha256", QString(64, QLatin1Char('0'))},
                                     {"executable", version == QLatin1String("0.1.190")
                                                        ? QStringLiteral("ZenthoLauncher.app")
                                                        : QStringLiteral("zentho")}})
        .toJson();
}

} // namespace

class TestHostileServers : public QObject {
    Q_OBJECT

    std::unique_ptr<TestServer> server_;
    QTemporaryDir* tmp_ = nullptr;
    long offlinePeakKiB_ = -1;

    QString path(const QString& relative) const { return tmp_->filePath(relative); }
    QString missingFile() const { return QUrl::fromLocalFile(path(QStringLiteral("none.json"))).toString(); }

    // Runs the real launcher with these manifest addresses and its temporary folder at
    // `temporary`, until the game starts or `timeoutMs` passes; the launcher is killed when it
    // grows past the guard.
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
        QElapsedTimer clock;
        clock.start();
        launcher.start(*server_, kInvite);
        qint64 pid = 0;
        while (clock.elapsed() < timeoutMs) {
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
                seen.startedAfterMs = clock.elapsed();
                break;
            }
            QTest::qWait(20);
        }
        seen.exitCode = launcher.waitForExit(10000);
        seen.errors = launcher.errors();
        seen.leftovers = QDir(temporary).entryList({QStringLiteral("zentho-*")}, QDir::Files) +
                         QDir(path(QStringLiteral("data/Zentho/launcher/downloads")))
                             .entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
        if (seen.gameStarted) {
            const QByteArray recorded = RealLauncher::waitForGameRecord(record);
            if (!recorded.startsWith("version=0.1.190\n"))
                seen.gameStarted = false; // only the seed build is ever offered here
            RealLauncher::terminateAndCollect(RealLauncher::recordedPid(recorded));
        }
        return seen;
    }

    // The common outcome: the seed build started in time, the launcher quit by itself, memory
    // stayed near an offline start and nothing was left behind.
    void verifySeedStartedWithin(const Observed& seen, qint64 withinMs) {
        qInfo("game started after %lld ms; launcher peak %ld KiB (offline start %ld KiB)",
              seen.startedAfterMs, seen.peakKiB, offlinePeakKiB_);
        QVERIFY2(seen.gameStarted, seen.errors.constData());
        QVERIFY2(seen.startedAfterMs <= withinMs, qPrintable(QString::number(seen.startedAfterMs)));
        QCOMPARE(seen.exitCode, std::optional<int>(0));
        QVERIFY2(seen.peakKiB > 0 && seen.peakKiB < offlinePeakKiB_ + kMemoryAllowanceKiB,
                 qPrintable(QStringLiteral("peak %1 KiB").arg(seen.peakKiB)));
        QCOMPARE(seen.leftovers, QStringList());
    }

private slots:
    void initTestCase() {
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
        TestFiles::makeFolder(path(QStringLiteral("tmp")));
    }
    void cleanup() {
        delete tmp_;
        tmp_ = nullptr;
    }

    void endlessGameManifest() {
        const qint64 before = server_->faultServer().bytesSent();
        const Observed seen = run(server_->url(QStringLiteral("/fault/endless")).toString(), missingFile(),
                                  path(QStringLiteral("tmp")), 30000);
        verifySeedStartedWithin(seen, 15000);
        if (QTest::currentTestFailed())
            return;
        // The launcher stopped reading soon after the cap; it did not drain the endless body.
        QVERIFY(server_->faultServer().bytesSent() - before < 64 * 1024 * 1024);
    }

    void endlessLauncherManifest() {
        const Observed seen = run(missingFile(), server_->url(QStringLiteral("/fault/endless")).toString(),
                                  path(QStringLiteral("tmp")), 30000);
        verifySeedStartedWithin(seen, 15000);
    }

    // 4 KiB/s is above the throughput floor, so only the manifest's own deadline ends the wait.
    void tricklingGameManifest() {
        server_->writeFile(QStringLiteral("slow/game.json"), QByteArray(400 * 1024, ' '));
        const Observed seen = run(server_->url(QStringLiteral("/trickle/slow/game.json")).toString(),
                                  missingFile(), path(QStringLiteral("tmp")), 50000);
        const qint64 deadline = std::chrono::milliseconds(TransferLimits::defaultManifestDeadline).count();
        verifySeedStartedWithin(seen, deadline + 10000);
        if (QTest::currentTestFailed())
            return;
        QVERIFY2(seen.startedAfterMs >= deadline - 1000, qPrintable(QString::number(seen.startedAfterMs)));
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
                           manifestJson(QStringLiteral("0.2.0"), QStringLiteral("macos-arm64"),
                                        server_->url(QStringLiteral("/fault/endless")).toString()));
        Observed seen;
        qint64 lowestFree = 0;
        {
            const FreeSpaceWatch watch(small);
            seen = run(server_->url(QStringLiteral("/endless-archive.json")).toString(), missingFile(),
                       path(QStringLiteral("tmp")), 30000);
            lowestFree = watch.lowest();
        }
        qInfo("lowest free space on the %lld MiB storage: %lld KiB", kSmallStorageSize >> 20,
              lowestFree / 1024);
        verifySeedStartedWithin(seen, 20000);
        if (QTest::currentTestFailed())
            return;
        // The reserve less what one read may add before the check sees it.
        QVERIFY2(lowestFree >= TransferLimits::defaultFreeSpaceReserve - 1024 * 1024,
                 qPrintable(QString::number(lowestFree)));
        QCOMPARE(freeBytesOf(small), kSmallStorageSize);
        QVERIFY(!QFileInfo::exists(path(QStringLiteral("data/Zentho/launcher/versions/0.2.0"))));
    }

    // A 407 on either manifest or on the archive is an answer, and the seed build starts.
    void status407Everywhere() {
        server_->writeFile(QStringLiteral("407/launcher.json"),
                           manifestJson(QStringLiteral("0.1.190"), QStringLiteral("macos-launcher-arm64"),
                                        QStringLiteral("https://127.0.0.1:1/x")));
        server_->writeFile(QStringLiteral("407/game.json"),
                           manifestJson(QStringLiteral("0.2.0"), QStringLiteral("macos-arm64"),
                                        server_->url(QStringLiteral("/status/407/build.tar.gz")).toString()));
        server_->writeFile(QStringLiteral("build.tar.gz"), "not really an archive");
        const Observed seen = run(server_->url(QStringLiteral("/status/407/407/game.json")).toString(),
                                  server_->url(QStringLiteral("/status/407/407/launcher.json")).toString(),
                                  path(QStringLiteral("tmp")), 30000);
        verifySeedStartedWithin(seen, 15000);
        if (QTest::currentTestFailed())
            return;
        const Observed archive = run(server_->url(QStringLiteral("/407/game.json")).toString(),
                                     server_->url(QStringLiteral("/407/launcher.json")).toString(),
                                     path(QStringLiteral("tmp")), 30000);
        verifySeedStartedWithin(archive, 15000);
        QVERIFY(!QFileInfo::exists(path(QStringLiteral("data/Zentho/launcher/versions/0.2.0"))));
    }

    void cleanupTestCase() { server_.reset(); }
};

int main(int argc, char** argv) {
    // A mount namespace of this test's own, entered while it is still one thread: the small
    // temporary file system it mounts is seen by its launchers and by nobody else, and goes
    // when the test ends.
    if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        std::perror("TestHostileServers: private mount namespace");
        return 1;
    }
    QCoreApplication app(argc, argv);
    TestHostileServers test;
    return QTest::qExec(&test, argc, argv);
}

#include "TestHostileServers.moc"
