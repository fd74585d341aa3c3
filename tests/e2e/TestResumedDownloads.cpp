// The real launcher on a bad network and a small disk: killed halfway through a throttled
// download and started again, served by a server that ignores Range or whose archive changed in
// between, cut off in the middle of a body, and given storage on a tmpfs too small for the
// archive. Each case is observed through what nginx was asked for and sent, which game started,
// and what is left on disk.

#include "FaultServer.h"
#include "InstallFixture.h"
#include "StandinGames.h"
#include "TestArchives.h"
#include "TestFiles.h"
#include "TestRequirements.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTest>

#include <csignal>
#include <memory>

namespace {

const QString kPrevious = QStringLiteral("0.2.0");
const QString kNew = QStringLiteral("0.3.0");

qint64 bytesServed(const QList<TestServer::Served>& served) {
    qint64 total = 0;
    for (const TestServer::Served& one : served)
        total += one.bytes;
    return total;
}

} // namespace

class TestResumedDownloads : public QObject, InstallFixture {
    Q_OBJECT

    QString downloads() const { return storage().downloads(); }

    void installPrevious(const QString& root) { installCurrent(kPrevious, root); }
    // A build archive of about `megabytes` (a recorder and incompressible padding).
    QByteArray buildArchive(double megabytes, quint32 seed) {
        const QString folder = path(QStringLiteral("build-%1").arg(seed));
        StandinGames::recorder(folder, record(), 1.5);
        TestFiles::writeFile(folder + QStringLiteral("/pad"),
                             TestFiles::randomBytes(qsizetype(megabytes * 1000 * 1000), seed));
        return TestArchives::bytesOf(folder, {QStringLiteral("zentho"), QStringLiteral("pad")});
    }
    // Puts `archive` on the server and a manifest for 0.3.0 that names it at `location` + its
    // path, with the digest of `good` (the archive itself unless given); returns the manifest's
    // address and the archive's path on the server in `archivePath`.
    QString publish(const QByteArray& archive, const QString& location, QString* archivePath,
                    const QByteArray& good = {}) {
        const Published published = InstallFixture::publish(kNew, archive, location, good);
        *archivePath = published.archivePath;
        return published.manifest;
    }
    // Starts the launcher, kills it with SIGKILL once `fraction` of `size` bytes are in its
    // download, and waits until nginx has logged the cut request. The bytes it had kept.
    qint64 killHalfway(const QString& manifest, const QString& archivePath, qint64 size,
                       double fraction = 0.5) {
        std::unique_ptr<RealLauncher> first = launcher(manifest);
        first->start(*server_, QStringLiteral("zentho://invite/resumed-downloads"));
        const qint64 pid = first->launcherPid();
        if (pid <= 0)
            return -1;
        if (!QTest::qWaitFor([&] { return partialSize() >= qint64(double(size) * fraction); }, 60000))
            qWarning("the download never got to %.0f %%", fraction * 100);
        ::kill(pid_t(pid), SIGKILL);
        first->waitForExit(10000);
        // nginx logs the cut request once it notices the connection has gone.
        if (!QTest::qWaitFor([&] { return server_->servedFor(archivePath).size() == 1; }, 10000))
            qWarning("nginx did not log the cut request");
        return partialSize();
    }
    qint64 partialSize() const {
        const QStringList parts =
            QDir(downloads()).entryList({QStringLiteral("*.part")}, QDir::Files);
        return parts.isEmpty() ? 0
                               : QFileInfo(downloads() + QLatin1Char('/') + parts.first()).size();
    }
    // The second attempt asked for the rest after the `kept` bytes, was sent the whole file of
    // `size` bytes instead, and took it from the start.
    void verifyStartedOver(const QString& archivePath, qint64 kept, qint64 size) {
        const QList<TestServer::Served> served = server_->servedFor(archivePath);
        QCOMPARE(served.size(), 2);
        QCOMPARE(served[1].range, QStringLiteral("bytes=%1-").arg(kept));
        QCOMPARE(served[1].status, 200);
        QCOMPARE(served[1].bytes, size);
        verifyNothingLeft();
    }
    // Nothing of a download left in the storage or the temporary folder.
    void verifyNothingLeft() {
        QVERIFY2(
            !QFileInfo::exists(downloads()),
            qPrintable(
                QDir(downloads()).entryList(QDir::NoDotAndDotDot | QDir::AllEntries).join(' ')));
        QCOMPARE(QDir(tmp()).entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::Hidden),
                 QStringList());
    }

private slots:
    void initTestCase() {
        ZENTHO_REQUIRE(root);
        ZENTHO_REQUIRE(nginx);
        setUpSuite();
    }
    void init() { setUp(); }
    void cleanup() { tearDown(); }

    // Killed halfway, started again: the rest is asked for with Range, no more than a tenth of
    // the archive comes twice, and the new build starts.
    void killedDownloadResumesAtTheNextStart() {
        installPrevious(data());
        const QByteArray archive = buildArchive(3, 1);
        QString archivePath;
        const QString manifest = publish(archive, QStringLiteral("/throttle"), &archivePath);
        const qint64 kept = killHalfway(manifest, archivePath, archive.size());
        QVERIFY2(kept >= archive.size() / 3, qPrintable(QString::number(kept)));
        QVERIFY(QFileInfo::exists(downloads()));

        std::unique_ptr<RealLauncher> second = launcher(manifest);
        QCOMPARE(press(*second), build(kNew));
        const QList<TestServer::Served> served = server_->servedFor(archivePath);
        QCOMPARE(served.size(), 2);
        QCOMPARE(served[0].range, QString());
        QCOMPARE(served[1].range, QStringLiteral("bytes=%1-").arg(kept));
        QCOMPARE(served[1].status, 206);
        QCOMPARE(served[1].bytes, archive.size() - kept);
        const qint64 total = bytesServed(served);
        qInfo(
            "archive %lld bytes; served %lld then %lld (total %lld, %.3f of the archive); a resume "
            "saved %lld bytes",
            qint64(archive.size()), served[0].bytes, served[1].bytes, total,
            double(total) / double(archive.size()), kept);
        QVERIFY(double(total) <= 1.1 * double(archive.size()));
        verifyNothingLeft();
    }

    // A server that ignores Range sends the whole archive again: it starts over and installs.
    void serverIgnoringRangeStartsOver() {
        installPrevious(data());
        const QByteArray archive = buildArchive(2, 2);
        QString archivePath;
        const QString manifest = publish(archive, QStringLiteral("/norange"), &archivePath);
        const qint64 kept = killHalfway(manifest, archivePath, archive.size(), 0.3);
        QVERIFY(kept > 0);

        std::unique_ptr<RealLauncher> second = launcher(manifest);
        QCOMPARE(press(*second), build(kNew));
        verifyStartedOver(archivePath, kept, archive.size());
    }

    // The archive was wrong when the first attempt took half of it, and has been replaced since
    // (same size, so only its validator tells): the kept half is not spliced onto the new file.
    void replacedArchiveStartsOver() {
        installPrevious(data());
        const QByteArray good = buildArchive(2, 3);
        const QByteArray wrong = TestFiles::randomBytes(good.size(), 4);
        QString archivePath;
        const QString manifest = publish(wrong, QStringLiteral("/throttle"), &archivePath, good);
        const QString onServer =
            server_->documentRoot() + archivePath.mid(QStringLiteral("/throttle").size());
        {
            QFile file(onServer);
            QVERIFY(file.open(QIODevice::ReadWrite));
            QVERIFY(file.setFileTime(QDateTime::currentDateTime().addSecs(-3600),
                                     QFileDevice::FileModificationTime));
        }
        const qint64 kept = killHalfway(manifest, archivePath, wrong.size(), 0.3);
        QVERIFY(kept > 0);
        server_->writeFile(onServer.mid(server_->documentRoot().size() + 1), good);

        std::unique_ptr<RealLauncher> second = launcher(manifest);
        QCOMPARE(press(*second), build(kNew));
        verifyStartedOver(archivePath, kept, good.size());
    }

    // A connection cut in the middle of the body is resumed at once, in the same attempt.
    void droppedConnectionIsResumedInTheSameAttempt() {
        installPrevious(data());
        const QByteArray archive = buildArchive(1, 5);
        QString archivePath;
        const QString manifest = publish(archive, QStringLiteral("/fault/cutfile/400000"), &archivePath);
        const int before = server_->faultServer().rangesAsked().size();
        std::unique_ptr<RealLauncher> real = launcher(manifest);
        QCOMPARE(press(*real), build(kNew));
        const QList<QByteArray> ranges = server_->faultServer().rangesAsked().mid(before);
        QVERIFY2(ranges.size() >= 3, ranges.join(' ').constData());
        QCOMPARE(ranges.first(), QByteArray());
        QVERIFY(ranges.at(1).startsWith("bytes="));
        verifyNothingLeft();
    }

    // Storage on a tmpfs far too small for the archive: nothing is downloaded, and the installed
    // build starts.
    void smallDiskRefusesBeforeDownloading() {
        const QString prepared = path(QStringLiteral("prepared"));
        installPrevious(prepared);
        TestFiles::makeFolder(data());
        const QByteArray archive = buildArchive(16, 6);
        QString archivePath;
        const QString manifest = publish(archive, QStringLiteral("/throttle"), &archivePath);

        std::unique_ptr<RealLauncher> real = launcher(manifest);
        // In the launcher's own mount namespace: a 24 MiB tmpfs over its data folder, filled with
        // the installed build.
        real->runThrough(
            {QStringLiteral("/bin/sh"), QStringLiteral("-c"),
             QStringLiteral("mount -t tmpfs -o size=24m tmpfs \"$0\" && cp -a \"$1\"/. \"$0\"/ "
                            "&& shift && exec \"$@\""),
             data(), prepared});
        QCOMPARE(press(*real), build(kPrevious));
        const QList<TestServer::Served> served = server_->servedFor(archivePath);
        QCOMPARE(served.size(), 1);
        qInfo("refused after %lld of %lld bytes had been sent", served[0].bytes,
              qint64(archive.size()));
        QVERIFY2(served[0].bytes < archive.size() / 10,
                 qPrintable(QString::number(served[0].bytes)));
        // The tmpfs went with the launcher's namespace; its data folder outside was never written.
        QCOMPARE(QDir(data()).entryList(QDir::NoDotAndDotDot | QDir::AllEntries), QStringList());
        QCOMPARE(QDir(tmp()).entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::Hidden),
                 QStringList());
    }

    // The twin: a tmpfs with room for the archive, its unpacked build and the reserve installs.
    void roomyDiskInstalls() {
        const QString prepared = path(QStringLiteral("prepared"));
        installPrevious(prepared);
        TestFiles::makeFolder(data());
        const QByteArray archive = buildArchive(2, 7);
        QString archivePath;
        const QString manifest = publish(archive, QString(), &archivePath);
        std::unique_ptr<RealLauncher> real = launcher(manifest);
        real->runThrough(
            {QStringLiteral("/bin/sh"), QStringLiteral("-c"),
             QStringLiteral("mount -t tmpfs -o size=96m tmpfs \"$0\" && cp -a \"$1\"/. \"$0\"/ "
                            "&& shift && exec \"$@\""),
             data(), prepared});
        QCOMPARE(press(*real), build(kNew));
        QCOMPARE(server_->servedFor(archivePath).size(), 1);
        QCOMPARE(server_->servedFor(archivePath).first().bytes, archive.size());
    }
};

QTEST_GUILESS_MAIN(TestResumedDownloads)
#include "TestResumedDownloads.moc"
