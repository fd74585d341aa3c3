#include "ResidentMemory.h"
#include "TestArchives.h"
#include "TestFiles.h"

#include <InflatedTarRun.h>

#include <QDir>
#include <QFileInfo>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>
#include <unistd.h>

namespace {

const std::string kTar = "/usr/bin/tar";

QByteArray noise(qsizetype size) {
    QByteArray bytes(size, '\0');
    QRandomGenerator::global()->fillRange(reinterpret_cast<quint32*>(bytes.data()), size / 4);
    return bytes;
}

// Children of this process that run tar.
QStringList tarChildren() {
    QStringList found;
    const QString self = QString::number(::getpid());
    for (const QString& pid : QDir(QStringLiteral("/proc")).entryList(QDir::Dirs)) {
        const QByteArray stat = TestFiles::readFile(QStringLiteral("/proc/%1/stat").arg(pid));
        // pid (comm) state ppid ...
        const qsizetype close = stat.lastIndexOf(')');
        if (close < 0 || !stat.contains("(tar)"))
            continue;
        const QList<QByteArray> fields = stat.mid(close + 2).split(' ');
        if (fields.size() > 1 && QString::fromLatin1(fields[1]) == self)
            found << pid;
    }
    return found;
}

} // namespace

// The inflated tar run on its own: fed from memory while the bytes arrive and from the file for
// whatever memory could not hold, never ending the process when tar stops reading, and leaving no
// tar behind when it is abandoned.
class TestInflatedTarRun : public QObject {
    Q_OBJECT

    QTemporaryDir dir_;
    QString archive_; // "zentho" first, then 20 MiB that gzip cannot shrink
    QByteArray bytes_;
    QString listing_;
    QString smallArchive_; // the same with 4 MiB: less than the queue holds
    QString smallListing_;

private slots:
    void initTestCase() {
        const QString tree = dir_.filePath(QStringLiteral("tree"));
        TestFiles::makeBuild(tree);
        TestFiles::writeFile(tree + QStringLiteral("/assets.pak"), noise(20 * 1024 * 1024));
        archive_ = dir_.filePath(QStringLiteral("big.tar.gz"));
        TestArchives::create(archive_, tree, {QStringLiteral("zentho"), QStringLiteral("assets.pak")});
        bytes_ = TestFiles::readFile(archive_);
        QVERIFY(bytes_.size() > qsizetype(InflatedTarRun::maximumQueuedBytes));
        listing_ = QString::fromUtf8(TestArchives::tar({QStringLiteral("-tzf"), archive_}));

        const QString small = dir_.filePath(QStringLiteral("small"));
        TestFiles::makeBuild(small);
        TestFiles::writeFile(small + QStringLiteral("/assets.pak"), noise(4 * 1024 * 1024));
        smallArchive_ = dir_.filePath(QStringLiteral("small.tar.gz"));
        TestArchives::create(smallArchive_, small,
                             {QStringLiteral("zentho"), QStringLiteral("assets.pak")});
        QVERIFY(QFileInfo(smallArchive_).size() < qint64(InflatedTarRun::maximumQueuedBytes));
        smallListing_ =
            QString::fromUtf8(TestArchives::tar({QStringLiteral("-tzf"), smallArchive_}));
    }

    // Appended as a download appends, an archive the queue can hold comes wholly from memory
    // however slowly the feeding thread takes it: the file it is said to be in holds only zeros
    // beyond what was appended, which would spoil any byte read back from it.
    void streamedBytesAreListed() {
        const QByteArray bytes = TestFiles::readFile(smallArchive_);
        InflatedTarRun run(kTar, {"-tf", "-"});
        for (qsizetype at = 0; at < bytes.size(); at += 64 * 1024)
            run.append(bytes.constData() + at,
                       std::size_t(std::min<qsizetype>(64 * 1024, bytes.size() - at)));
        const QString zeros = dir_.filePath(QStringLiteral("zeros.tar.gz"));
        TestFiles::writeFile(zeros, QByteArray(bytes.size(), '\0'));
        run.finishFrom(zeros.toStdString());
        const InflatedTarRun::Outcome outcome = run.wait();
        QVERIFY(outcome.clean);
        QCOMPARE(QString::fromStdString(outcome.tar.output), smallListing_);
    }
    // The twin: without a file holding the rest of the archive, the run is not clean.
    void missingFileForTheRestIsNotClean() {
        InflatedTarRun run(kTar, {"-tf", "-"});
        run.append(bytes_.constData(), 1000);
        run.finishFrom(dir_.filePath(QStringLiteral("absent")).toStdString());
        QVERIFY(!run.wait().clean);
    }

    // More than the queue holds at once: what it cannot hold is read back from the file, from
    // exactly where memory stopped.
    void bytesBeyondTheQueueComeFromTheFile() {
        InflatedTarRun run(kTar, {"-tf", "-"});
        run.append(bytes_.constData(), 1000);
        run.append(bytes_.constData() + 1000, std::size_t(bytes_.size() - 1000)); // too much at once
        run.finishFrom(archive_.toStdString());
        const InflatedTarRun::Outcome outcome = run.wait();
        QVERIFY(outcome.clean);
        QCOMPARE(QString::fromStdString(outcome.tar.output), listing_);
    }

    // tar stops reading once it has found the one member asked for; the rest still goes through
    // the checks, and the process does not die of the closed pipe.
    void tarThatStopsReadingEarly() {
        InflatedTarRun run(kTar, {"-tf", "-", "--occurrence=1", "zentho"});
        run.finishFrom(archive_.toStdString());
        const InflatedTarRun::Outcome outcome = run.wait();
        QCOMPARE(outcome.tar.status, 0);
        QCOMPARE(QString::fromStdString(outcome.tar.output), QStringLiteral("zentho\n"));
        QVERIFY(outcome.clean);
        // Its twin: the same early stop on an archive whose end is broken is not clean.
        const QString broken = dir_.filePath(QStringLiteral("broken.tar.gz"));
        QByteArray bytes = bytes_;
        bytes[bytes.size() - 8] = static_cast<char>(bytes[bytes.size() - 8] ^ 1); // its CRC-32
        TestFiles::writeFile(broken, bytes);
        InflatedTarRun spoiled(kTar, {"-tf", "-", "--occurrence=1", "zentho"});
        spoiled.finishFrom(broken.toStdString());
        QVERIFY(!spoiled.wait().clean);
    }

    // A gzip header that goes wrong ends the run at once; an endless body that keeps arriving
    // after that must not pile up in memory waiting for a reader that is gone.
    void bytesAfterTheRunGaveUpAreNotKept() {
        InflatedTarRun run(kTar, {"-tf", "-"});
        const QByteArray blanks(64 * 1024, ' ');
        const QByteArray spoiledHeader("\x1f\x8b\x00\x00", 4); // no compression method 0
        run.append(spoiledHeader.constData(), std::size_t(spoiledHeader.size()));
        run.append(blanks.constData(), std::size_t(blanks.size()));
        QTRY_VERIFY_WITH_TIMEOUT(run.outcome().has_value(), 60000);
        QVERIFY(!run.outcome()->clean);
        const long before = ResidentMemory::currentKiB();
        for (std::size_t appended = 0; appended < InflatedTarRun::maximumQueuedBytes - blanks.size();
             appended += std::size_t(blanks.size()))
            run.append(blanks.constData(), std::size_t(blanks.size()));
        const long grown = ResidentMemory::currentKiB() - before;
        qInfo("grown %ld KiB", grown);
        QVERIFY2(before > 0 && grown < 4 * 1024, qPrintable(QStringLiteral("%1 KiB").arg(grown)));
    }

    // Nor are they copied while the feeding thread has yet to look at them: an archive that does
    // not begin as gzip is refused as it arrives.
    void bytesThatAreNotGzipAreNeverQueued() {
        InflatedTarRun run(kTar, {"-tf", "-"});
        const QByteArray blanks(int(InflatedTarRun::maximumQueuedBytes) - 1024, ' ');
        ResidentMemory::resetPeak();
        const long before = ResidentMemory::peakKiB();
        run.append(blanks.constData(), std::size_t(blanks.size()));
        const long grown = ResidentMemory::peakKiB() - before;
        QVERIFY2(before > 0 && grown < 4 * 1024, qPrintable(QStringLiteral("%1 KiB").arg(grown)));
        run.finishFrom(dir_.filePath(QStringLiteral("absent")).toStdString());
        QVERIFY(!run.wait().clean);
    }

    void failingTarIsNotClean() {
        InflatedTarRun run(kTar, {"-tf", "-", "not-in-the-archive"});
        run.finishFrom(archive_.toStdString());
        const InflatedTarRun::Outcome outcome = run.wait();
        QCOMPARE(outcome.tar.status, 2);
        QVERIFY(!outcome.clean);
    }

    // Abandoned half-way (the digest did not match, the download failed): tar has gone, and
    // been collected, by the time the run is.
    void abandonedRunLeavesNoTar() {
        QCOMPARE(tarChildren(), QStringList());
        {
            InflatedTarRun run(kTar, {"-xf", "-", "-C", dir_.path().toStdString()});
            run.append(bytes_.constData(), 512 * 1024);
            QTRY_VERIFY_WITH_TIMEOUT(!tarChildren().isEmpty(), 60000);
        }
        QCOMPARE(tarChildren(), QStringList());
    }

    void endDescriptorBecomesReadable() {
        InflatedTarRun run(kTar, {"-tf", "-"});
        QVERIFY(!run.outcome().has_value());
        run.finishFrom(archive_.toStdString());
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(run.endDescriptor(), &readable);
        timeval limit{300, 0};
        QCOMPARE(::select(run.endDescriptor() + 1, &readable, nullptr, nullptr, &limit), 1);
        QVERIFY(run.outcome().has_value());
        QVERIFY(run.outcome()->clean);
    }
};

QTEST_GUILESS_MAIN(TestInflatedTarRun)
#include "TestInflatedTarRun.moc"
