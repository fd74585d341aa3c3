#include "DescriptorLimit.h"
#include "TestFiles.h"

#include <ProcessCapture.h>

#include <QDir>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <cerrno>
#include <csignal>
#include <optional>
#include <sys/wait.h>
#include <unistd.h>

using ProcessCapture::run;

namespace {

CapturedProcessResult sh(const std::string& script, std::vector<std::string> extra = {}) {
    std::vector<std::string> arguments{"-c", script, "sh"};
    arguments.insert(arguments.end(), extra.begin(), extra.end());
    return run("/bin/sh", arguments);
}

} // namespace

class TestProcessCapture : public QObject {
    Q_OBJECT

    QTemporaryDir* tmp_ = nullptr;

    // Gone, or ended and waiting to be collected by whoever inherited it.
    static bool hasEnded(pid_t pid) {
        QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
        if (!stat.open(QIODevice::ReadOnly))
            return true;
        const QByteArray text = stat.readAll();
        const qsizetype close = text.lastIndexOf(')');
        return close > 0 && text.mid(close + 2, 1) == "Z";
    }

    QStringList captureFiles() const {
        return QDir(tmp_->path())
            .entryList({QStringLiteral("zentho-launcher-*")}, QDir::Files | QDir::Hidden);
    }

private slots:
    void init() {
        tmp_ = new QTemporaryDir;
        qputenv("TMPDIR", QFile::encodeName(tmp_->path()));
    }
    void cleanup() {
        qunsetenv("TMPDIR");
        delete tmp_;
    }

    void silentProgramYieldsEmptyTexts() {
        const auto result = sh("exit 0");
        QCOMPARE(result.status, 0);
        QCOMPARE(result.output, std::string());
        QCOMPARE(result.errors, std::string());
    }
    void bothStreamsAreCapturedApart() {
        const auto result = sh("printf out; printf err >&2");
        QCOMPARE(result.output, std::string("out"));
        QCOMPARE(result.errors, std::string("err"));
    }

    void nonZeroStatusIsReturnedNotThrown() {
        const auto result = sh("printf x >&2; exit 3");
        QCOMPARE(result.status, 3);
        QCOMPARE(result.errors, std::string("x"));
        QCOMPARE(result.output, std::string());
    }
    void zeroStatusIsReported() { QCOMPARE(sh("printf x >&2; exit 0").status, 0); }

    void signalledChildReportsMinusSignal() {
        QCOMPARE(sh("kill -9 $$").status, -9);
        QCOMPARE(sh("kill -15 $$").status, -15);
    }
    void exitStatusAboveSignalsIsNotNegative() { QCOMPARE(sh("exit 137").status, 137); }

    void argumentsArePassedAsTheyAre() {
        const auto result = sh("for a in \"$@\"; do printf '[%s]' \"$a\"; done",
                               {"two words", "", "qu\"ote", "émoji 🎮"});
        QCOMPARE(result.output, std::string("[two words][][qu\"ote][émoji 🎮]"));
    }

    void missingProgramThrowsTheStartErrorAndLeavesNoFiles() {
        try {
            run("/nonexistent/program", {});
            QFAIL("a missing program must throw");
        } catch (const FileWriteError&) {
            QFAIL("a start error is not a file-write error");
        } catch (const std::system_error& error) {
            QCOMPARE(error.code().value(), ENOENT);
            QVERIFY(std::string(error.what()).find("/nonexistent/program") != std::string::npos);
        }
        QCOMPARE(captureFiles(), QStringList());
    }
    void captureFilesExistWhileTheChildRunsAndAreGoneAfter() {
        const auto result = sh("ls \"$TMPDIR\"");
        const QString listed = QString::fromStdString(result.output);
        const QStringList names = listed.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        QCOMPARE(names.size(), 2);
        QVERIFY(names[0].startsWith(QLatin1String("zentho-launcher-stderr-")));
        QVERIFY(names[1].startsWith(QLatin1String("zentho-launcher-stdout-")));
        // One UUID, upper-case and hyphenated, shared by both files.
        const QString uuid = names[1].mid(int(strlen("zentho-launcher-stdout-")));
        QCOMPARE(names[0].mid(int(strlen("zentho-launcher-stderr-"))), uuid);
        QVERIFY(QRegularExpression(QStringLiteral("^[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}$"))
                    .match(uuid)
                    .hasMatch());
        QCOMPARE(captureFiles(), QStringList());
    }
    void failingChildAlsoLeavesNoFiles() {
        QCOMPARE(sh("printf x; exit 9").status, 9);
        QCOMPARE(captureFiles(), QStringList());
    }

    void invalidUtf8BecomesEmptyWhileTheOtherStreamDecodes() {
        const auto result = sh("printf 'ok\\377\\376' ; printf 'fine' >&2");
        QCOMPARE(result.output, std::string());
        QCOMPARE(result.errors, std::string("fine"));
    }
    void validMultibyteUtf8IsKept() {
        const auto result = sh("printf 'caf\\303\\251 \\360\\237\\216\\256'");
        QCOMPARE(result.output, std::string("café 🎮"));
    }
    void utf8Validation_data() {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<bool>("valid");
        QTest::newRow("ascii") << QByteArray("abc") << true;
        QTest::newRow("two-byte") << QByteArray("\xc3\xa9") << true;
        QTest::newRow("four-byte") << QByteArray("\xf0\x9f\x8e\xae") << true;
        QTest::newRow("lone continuation") << QByteArray("\x80") << false;
        QTest::newRow("truncated") << QByteArray("\xe2\x82") << false;
        QTest::newRow("overlong slash") << QByteArray("\xc0\xaf") << false;
        QTest::newRow("three-byte overlong slash") << QByteArray("\xe0\x80\xaf") << false;
        QTest::newRow("four-byte overlong slash") << QByteArray("\xf0\x80\x80\xaf") << false;
        QTest::newRow("three-byte") << QByteArray("\xe2\x82\xac") << true;
        QTest::newRow("surrogate") << QByteArray("\xed\xa0\x80") << false;
        QTest::newRow("past U+10FFFF") << QByteArray("\xf4\x90\x80\x80") << false;
    }
    void utf8Validation() {
        QFETCH(QByteArray, bytes);
        QFETCH(bool, valid);
        QCOMPARE(ProcessCapture::isValidUtf8(bytes.toStdString()), valid);
    }

    void largeOutputDoesNotDeadlock() {
        const auto result = sh("head -c 8388608 /dev/zero | tr '\\000' a; printf done >&2");
        QCOMPARE(result.status, 0);
        QCOMPARE(result.output.size(), std::size_t(8 * 1024 * 1024));
        QCOMPARE(result.output.find_first_not_of('a'), std::string::npos);
        QCOMPARE(result.errors, std::string("done"));
    }

    void nulBytesAreKept() {
        const auto result = sh("printf 'a\\000b'; printf 'c\\000' >&2");
        QCOMPARE(result.output, std::string("a\0b", 3));
        QCOMPARE(result.errors, std::string("c\0", 2));
    }

    void missingTemporaryFolderFallsBackToTmp() {
        qputenv("TMPDIR", QFile::encodeName(tmp_->path() + QStringLiteral("/missing")));
        // Other runs may be capturing in /tmp too, so at least this run's two files are there.
        const auto result = sh("ls /tmp | grep -c '^zentho-launcher-std'");
        QCOMPARE(result.status, 0);
        QVERIFY2(std::stoi(result.output) >= 2, result.output.c_str());
        QCOMPARE(captureFiles(), QStringList());
    }

    // When the second capture file cannot be made, the first one stays where it was made: the
    // run had not started, so there is nothing of a run to clean up yet.
    void secondCaptureFileFailureIsAFileWriteErrorAndKeepsTheFirst() {
        bool threw = false;
        DescriptorLimit::seen<FileWriteError>();
        {
            const DescriptorLimit limit(1); // room for the first capture file only
            QVERIFY(limit.active());
            try {
                run("/bin/true", {});
            } catch (const FileWriteError& error) {
                threw = error.code().value() == EMFILE;
            }
        }
        QVERIFY(threw);
        const QStringList left = captureFiles();
        QCOMPARE(left.size(), 1);
        QVERIFY(left.first().startsWith(QLatin1String("zentho-launcher-stdout-")));
    }
    void pollReportsTheEndOnlyOnceTheChildHasExited() {
        const QString exitNow = tmp_->filePath(QStringLiteral("exit-now"));
        std::optional<CapturedProcessResult> result;
        {
            // A child that cannot end before the test makes its file.
            ProcessCapture::Running child = ProcessCapture::start(
                "/bin/sh", {"-c", "while [ ! -e \"$0\" ]; do sleep 0.01; done; printf x",
                            exitNow.toStdString()});
            QVERIFY(!child.poll());
            QCOMPARE(captureFiles().size(), 2);
            QVERIFY(!child.poll());
            TestFiles::writeFile(exitNow, "");
            QVERIFY(QTest::qWaitFor([&] { return (result = child.poll()).has_value(); }, 60000));
        }
        QCOMPARE(result->output, std::string("x"));
        QCOMPARE(captureFiles(), QStringList());
    }

    // A child nobody collects any more is ended, not left running on its own.
    void droppedChildIsKilledAndItsFilesRemoved() {
        pid_t pid = -1;
        {
            ProcessCapture::Running child = ProcessCapture::start("/bin/sleep", {"30"});
            pid = child.pid();
            QCOMPARE(::kill(pid, 0), 0);
        }
        QCOMPARE(::kill(pid, 0), -1); // killed and collected
        QCOMPARE(captureFiles(), QStringList());
    }

    // A child must not outlive the process that runs it: a launcher killed mid-tar leaves no tar
    // writing into its storage. A forked stand-in for the launcher starts a long child and dies.
    void childDiesWithItsParent() {
        const QString pidFile = tmp_->filePath(QStringLiteral("child-pid"));
        const pid_t parent = ::fork();
        QVERIFY(parent >= 0);
        if (parent == 0) {
            ProcessCapture::Running child = ProcessCapture::start(
                "/bin/sh", {"-c", "echo $$ > '" + pidFile.toStdString() + "'; exec sleep 600"});
            // Until the child is the long sleep itself, not a shell that might end on its own.
            const std::string comm = "/proc/" + std::to_string(child.pid()) + "/comm";
            for (int i = 0;
                 i < 60000 && TestFiles::readFile(QString::fromStdString(comm)) != "sleep\n"; ++i)
                ::usleep(1000);
            ::kill(::getpid(), SIGKILL);
        }
        int status = 0;
        QCOMPARE(::waitpid(parent, &status, 0), parent);
        QFile file(pidFile);
        QVERIFY(file.open(QIODevice::ReadOnly));
        const pid_t child = file.readAll().trimmed().toInt();
        QVERIFY(child > 0);
        // Orphans go to init (or a subreaper) once killed; either way the sleep must be gone.
        QTRY_VERIFY_WITH_TIMEOUT(hasEnded(child), 60000);
    }

    void usableTemporaryFolderRuns() {
        QCOMPARE(run("/bin/true", {}).status, 0);
        QCOMPARE(captureFiles(), QStringList());
    }
};

QTEST_GUILESS_MAIN(TestProcessCapture)
#include "TestProcessCapture.moc"
