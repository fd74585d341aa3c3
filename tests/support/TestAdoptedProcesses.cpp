// The support that keeps tests from leaving processes behind: a child that, as it is ended,
// hands a new child of its own to the test (as a launcher told to quit may just have started its
// game) is ended too, and whatever runs a program from a test's folder goes with the folder.

#include "AdoptedProcesses.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <signal.h>

namespace {

// Running processes whose one argument is `marker` (a sleep's duration no other test uses).
int runningWith(const QByteArray& marker) {
    int found = 0;
    for (const QString& entry : QDir(QStringLiteral("/proc")).entryList(QDir::Dirs)) {
        QFile cmdline(QStringLiteral("/proc/") + entry + QStringLiteral("/cmdline"));
        if (!cmdline.open(QIODevice::ReadOnly))
            continue;
        const QList<QByteArray> arguments = cmdline.readAll().split('\0');
        if (arguments.size() == 3 && arguments[1] == marker && arguments[2].isEmpty())
            ++found;
    }
    return found;
}

// A child that, told to end, starts `sleep <seconds>` in the background and then ends; returned
// once it is ready to (its trap is set).
qint64 startHandingOver(const QString& seconds) {
    QTemporaryDir folder;
    const QString ready = folder.filePath(QStringLiteral("ready"));
    qint64 pid = 0;
    QProcess::startDetached(QStringLiteral("/bin/sh"),
                            {QStringLiteral("-c"),
                             QStringLiteral("trap '/bin/sleep %1 & exit 0' TERM; : > '%2'; while :; do /bin/sleep 0.05; done")
                                 .arg(seconds, ready)},
                            QString(), &pid);
    return QTest::qWaitFor([&] { return QFile::exists(ready); }, 10000) ? pid : 0;
}

} // namespace

class TestAdoptedProcesses : public QObject {
    Q_OBJECT

private slots:
    void aChildHandedOverWhileEndingIsEndedToo() {
        {
            AdoptedProcesses adopted;
            QVERIFY(startHandingOver(QStringLiteral("86401.7")) > 0);
            QVERIFY(QTest::qWaitFor([&] { return !adopted.running().isEmpty(); }, 10000));
            adopted.endAll();
            QCOMPARE(adopted.running(), QList<qint64>());
        }
        QCOMPARE(runningWith("86401.7"), 0);
    }
    // The twin: the handed-over child is real, so one pass over the children would miss it.
    void endingTheChildHandsANewOneOver() {
        AdoptedProcesses adopted;
        const qint64 child = startHandingOver(QStringLiteral("86402.7"));
        QVERIFY(child > 0);
        QVERIFY(QTest::qWaitFor([&] { return adopted.running().contains(child); }, 10000));
        ::kill(pid_t(child), SIGTERM);
        QVERIFY(QTest::qWaitFor([&] { return runningWith("86402.7") == 1; }, 10000));
        QVERIFY(QTest::qWaitFor([&] { return !adopted.running().isEmpty() && !adopted.running().contains(child); }, 10000));
        adopted.endAll();
        QCOMPARE(runningWith("86402.7"), 0);
    }

    void whatRunsFromTheFolderIsEnded() {
        QTemporaryDir folder;
        const QString copy = folder.filePath(QStringLiteral("sleep"));
        QVERIFY(QFile::copy(QStringLiteral("/bin/sleep"), copy));
        QVERIFY(QFile::setPermissions(copy, QFile::ReadOwner | QFile::ExeOwner));
        qint64 inside = 0;
        qint64 outside = 0;
        QVERIFY(QProcess::startDetached(copy, {QStringLiteral("86403.7")}, QString(), &inside));
        QVERIFY(QProcess::startDetached(QStringLiteral("/bin/sleep"), {QStringLiteral("86404.7")}, QString(), &outside));
        QVERIFY(QTest::qWaitFor([&] { return runningWith("86403.7") == 1 && runningWith("86404.7") == 1; }, 10000));
        AdoptedProcesses::endRunningFrom(folder.path());
        QCOMPARE(runningWith("86403.7"), 0);
        // The twin: a program from elsewhere runs on.
        QCOMPARE(runningWith("86404.7"), 1);
        ::kill(pid_t(outside), SIGKILL);
        QVERIFY(QTest::qWaitFor([&] { return runningWith("86404.7") == 0; }, 10000));
    }
};

QTEST_GUILESS_MAIN(TestAdoptedProcesses)
#include "TestAdoptedProcesses.moc"
