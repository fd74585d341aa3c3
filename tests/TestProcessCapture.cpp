#include <ProcessCapture.h>

#include <QDir>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <cerrno>
#include <fcntl.h>
#include <sys/resource.h>
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
        const auto result = sh("ls /tmp | grep -c '^zentho-launcher-std'");
        QCOMPARE(result.status, 0);
        QCOMPARE(result.output, std::string("2\n"));
        QCOMPARE(captureFiles(), QStringList());
    }

    // When the second capture file cannot be made, the first one stays where it was made: the
    // run had not started, so there is nothing of a run to clean up yet.
    void secondCaptureFileFailureIsAFileWriteErrorAndKeepsTheFirst() {
        const int lowestFree = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        QVERIFY(lowestFree >= 0);
        ::close(lowestFree);
        rlimit saved{};
        QCOMPARE(::getrlimit(RLIMIT_NOFILE, &saved), 0);
        rlimit tight = saved;
        tight.rlim_cur = rlim_t(lowestFree) + 1; // room for exactly one more descriptor
        QCOMPARE(::setrlimit(RLIMIT_NOFILE, &tight), 0);
        bool threw = false;
        try {
            run("/bin/true", {});
        } catch (const FileWriteError& error) {
            threw = error.code().value() == EMFILE;
        }
        ::setrlimit(RLIMIT_NOFILE, &saved);
        QVERIFY(threw);
        const QStringList left = captureFiles();
        QCOMPARE(left.size(), 1);
        QVERIFY(left.first().startsWith(QLatin1String("zentho-launcher-stdout-")));
    }
    void usableTemporaryFolderRuns() {
        QCOMPARE(run("/bin/true", {}).status, 0);
        QCOMPARE(captureFiles(), QStringList());
    }
};

QTEST_GUILESS_MAIN(TestProcessCapture)
#include "TestProcessCapture.moc"
