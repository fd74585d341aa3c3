#include "DescriptorLimit.h"
#include "TestArchives.h"
#include "TestFiles.h"

#include "archive/Archive.h"
#include "errors/LauncherError.h"

#include <ProcessCapture.h>

#include <QDir>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <system_error>

namespace {

// What tar itself says when run with `arguments`, for comparing with what runTar reports.
QString tarErrorText(const QStringList& arguments) {
    QProcess tar;
    tar.start(QStringLiteral("/usr/bin/tar"), arguments);
    tar.waitForFinished();
    return QString::fromUtf8(tar.readAllStandardError());
}

} // namespace

class TestArchive : public QObject {
    Q_OBJECT

    QTemporaryDir dir_;

    QString path(const QString& name) const { return dir_.filePath(name); }

    // Runs runTar and hands back the LauncherError it threw, if any.
    static std::optional<LauncherError> tarError(const QStringList& arguments) {
        try {
            runTar(arguments);
        } catch (const LauncherError& error) {
            return error;
        }
        return std::nullopt;
    }

private slots:
    void listingRule_data() {
        QTest::addColumn<QString>("listing");
        QTest::addColumn<bool>("safe");
        QTest::newRow("absolute") << "/etc/x" << false;
        QTest::newRow("climbs out through a folder") << "game/../../x" << false;
        QTest::newRow("lone ..") << ".." << false;
        QTest::newRow("climbs out of the bundle") << "ZenthoLauncher.app/../../x" << false;
        QTest::newRow(".. with a trailing slash") << "../" << false;
        QTest::newRow(".. at the end") << "a/.." << false;
        QTest::newRow("double leading slash") << "//x" << false;
        QTest::newRow("unsafe entry after safe ones") << "zentho\nlib/a\n/etc/x\n" << false;
        QTest::newRow("CR line ends do not hide ..") << "zentho\r\n..\r\n.." << false;
        QTest::newRow("dot slash") << "./zentho" << true;
        QTest::newRow("dots inside a name") << "a..b/c" << true;
        QTest::newRow("dots starting a name") << "..x" << true;
        QTest::newRow("three dots") << ".../x" << true;
        QTest::newRow("empty component") << "a//b" << true;
        QTest::newRow("single dot component") << "dir/./file" << true;
        QTest::newRow("blank before slash") << " /x" << true;
        QTest::newRow("blank around ..") << "a/ ../b" << true;
        QTest::newRow("CR after .. is part of the name") << "..\r" << true;
        QTest::newRow("CR inside a path") << "..\r/x\ngame/..\r/y" << true;
        QTest::newRow("tab is not a separator") << "..\t.." << true;
        QTest::newRow("empty listing") << "" << true;
        QTest::newRow("only line feeds") << "\n\n\n" << true;
        QTest::newRow("typical build") << "./\n./zentho\n./data/\n./data/pak0\n" << true;
    }
    void listingRule() {
        QFETCH(QString, listing);
        QFETCH(bool, safe);
        bool passed = false;
        try {
            checkArchiveListing(listing);
            passed = true;
        } catch (const LauncherError& error) {
            QCOMPARE(error, LauncherError::unsafeArchive());
        }
        QCOMPARE(passed, safe);
    }

    void sha256HexOfKnownVectors_data() {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("digest");
        QTest::newRow("empty") << QByteArray()
                               << "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
        QTest::newRow("abc") << QByteArray("abc")
                             << "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
        QTest::newRow("two blocks")
            << QByteArray("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq")
            << "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1";
        QTest::newRow("leading zero byte in the digest")
            << QByteArray("zentho-447")
            << "00868fa750ada5eaa86f8920fd02b7612ecb501b325ae09aaf0f885712b4b4d2";
        QTest::newRow("odd bytes, checked by sha256sum") << QByteArray("\0\xff\r\n", 4) << QString();
    }
    void sha256HexOfKnownVectors() {
        QFETCH(QByteArray, bytes);
        QFETCH(QString, digest);
        const QString hex = sha256Hex(bytes);
        if (digest.isEmpty()) { // compare with sha256sum instead of a written-down value
            TestFiles::writeFile(path(QStringLiteral("vector")), bytes);
            digest = TestArchives::sha256sum(path(QStringLiteral("vector")));
        }
        QCOMPARE(hex, digest);
    }
    void sha256HexIsAlways64LowerCaseDigits() {
        for (int i = 0; i < 300; ++i) {
            const QString hex = sha256Hex(QByteArray::number(i));
            QCOMPARE(hex.size(), 64);
            for (const QChar c : hex)
                QVERIFY2((c >= u'0' && c <= u'9') || (c >= u'a' && c <= u'f'), qPrintable(hex));
        }
    }
    void sha256HexMatchesSha256sumForALargeFile() {
        QByteArray bytes(3 * 1024 * 1024 + 17, '\0');
        for (qsizetype i = 0; i < bytes.size(); ++i)
            bytes[i] = static_cast<char>((i * 7919) ^ (i >> 9));
        TestFiles::writeFile(path(QStringLiteral("large")), bytes);
        QCOMPARE(sha256Hex(bytes), TestArchives::sha256sum(path(QStringLiteral("large"))));
        // One changed byte must change the digest.
        bytes[bytes.size() / 2] = static_cast<char>(bytes[bytes.size() / 2] ^ 1);
        QVERIFY(sha256Hex(bytes) != TestArchives::sha256sum(path(QStringLiteral("large"))));
    }

    void runTarReturnsTheListing() {
        const QString folder = path(QStringLiteral("listed"));
        TestFiles::makeBuild(folder);
        TestFiles::writeFile(folder + QStringLiteral("/data/pak0"), "pak");
        const QString archive = path(QStringLiteral("listed.tar.gz"));
        TestArchives::create(archive, folder, {QStringLiteral("zentho"), QStringLiteral("data")});
        QCOMPARE(runTar({QStringLiteral("-tzf"), archive}),
                 QStringLiteral("zentho\ndata/\ndata/pak0\n"));
    }
    void runTarExtractsIntoTheGivenFolder() {
        const QString folder = path(QStringLiteral("source"));
        TestFiles::writeFile(folder + QStringLiteral("/a/b"), "bee");
        const QString archive = path(QStringLiteral("extract.tar.gz"));
        TestArchives::create(archive, folder, {QStringLiteral("a")});
        const QString target = path(QStringLiteral("target"));
        TestFiles::makeFolder(target);
        QCOMPARE(runTar({QStringLiteral("-xzf"), archive, QStringLiteral("-C"), target}), QString());
        QCOMPARE(TestFiles::readFile(target + QStringLiteral("/a/b")), QByteArray("bee"));
    }
    void runTarFailureCarriesTarsTextUntrimmed() {
        const QStringList arguments{QStringLiteral("-tzf"), path(QStringLiteral("absent.tar.gz"))};
        const auto error = tarError(arguments);
        QVERIFY(error.has_value());
        QCOMPARE(error->errorCase(), LauncherError::Case::archiveFailed);
        const QString expected = tarErrorText(arguments);
        QVERIFY(expected.contains(QStringLiteral("Cannot open")));
        QVERIFY(expected.endsWith(QLatin1Char('\n')));
        QCOMPARE(error->detail(), expected);
        QCOMPARE(error->errorDescription(), expected);
    }
    void runTarCorruptGzipFails() {
        const QString archive = path(QStringLiteral("corrupt.tar.gz"));
        static const char kCorrupt[] = "\x1f\x8b\x08\x00garbage that is not deflate";
        TestFiles::writeFile(archive, QByteArray(kCorrupt, sizeof kCorrupt - 1));
        const QStringList arguments{QStringLiteral("-tzf"), archive};
        const auto error = tarError(arguments);
        QVERIFY(error.has_value());
        QCOMPARE(error->errorCase(), LauncherError::Case::archiveFailed);
        QCOMPARE(error->detail(), tarErrorText(arguments));
        QVERIFY(!error->detail().isEmpty());
    }
    void runTarTruncatedArchiveFails() {
        const QString folder = path(QStringLiteral("big"));
        QByteArray noise(256 * 1024, '\0');
        for (qsizetype i = 0; i < noise.size(); ++i)
            noise[i] = static_cast<char>((i * 2654435761u) >> 13);
        TestFiles::writeFile(folder + QStringLiteral("/noise"), noise);
        const QString archive = path(QStringLiteral("whole.tar.gz"));
        TestArchives::create(archive, folder, {QStringLiteral("noise")});
        const QString cut = path(QStringLiteral("cut.tar.gz"));
        TestFiles::writeFile(cut, TestFiles::readFile(archive).left(4096));
        QVERIFY(!tarError({QStringLiteral("-tzf"), archive}).has_value());
        const auto error = tarError({QStringLiteral("-tzf"), cut});
        QVERIFY(error.has_value());
        QCOMPARE(error->errorCase(), LauncherError::Case::archiveFailed);
    }
    void runTarExitTwoWithoutReadableErrorTextSaysTarFailed() {
        // tar fails (status 2) on a corrupt archive, and a checkpoint command first writes a byte
        // that is not UTF-8 to tar's standard error, so the captured error text is empty.
        const QString archive = path(QStringLiteral("short.tar.gz"));
        TestFiles::writeFile(archive, QByteArray("\x1f\x8b", 2));
        const QStringList arguments{QStringLiteral("--checkpoint=1"),
                                    QStringLiteral("--checkpoint-action=exec=printf '\\377' >&2"),
                                    QStringLiteral("-tzf"), archive};
        QProcess tar;
        tar.start(QStringLiteral("/usr/bin/tar"), arguments);
        tar.waitForFinished();
        QCOMPARE(tar.exitCode(), 2);
        QCOMPARE(ProcessCapture::run("/usr/bin/tar", {arguments[0].toStdString(),
                                                       arguments[1].toStdString(),
                                                       arguments[2].toStdString(),
                                                       arguments[3].toStdString()})
                     .errors,
                 std::string());
        const auto error = tarError(arguments);
        QVERIFY(error.has_value());
        QCOMPARE(*error, LauncherError::archiveFailed(QStringLiteral("tar failed")));
        QCOMPARE(error->errorDescription(), QStringLiteral("tar failed"));
    }
    void runTarKilledSilentlySaysTarFailed() {
        const QString folder = path(QStringLiteral("killed"));
        TestFiles::makeBuild(folder);
        const QString archive = path(QStringLiteral("killed.tar.gz"));
        TestArchives::create(archive, folder, {QStringLiteral("zentho")});
        const auto error = tarError({QStringLiteral("--checkpoint=1"),
                                     QStringLiteral("--checkpoint-action=exec=kill -9 $PPID"),
                                     QStringLiteral("-tzf"), archive});
        QVERIFY(error.has_value());
        QCOMPARE(*error, LauncherError::archiveFailed(QStringLiteral("tar failed")));
    }
    void runTarIgnoresWarningsWhenItSucceeds() {
        const QString archive = path(QStringLiteral("absolute.tar.gz"));
        TestArchives::createWithName(archive, QStringLiteral("/abs/member"),
                                     path(QStringLiteral("absolute-scratch")));
        const QString folder = path(QStringLiteral("absolute-out"));
        TestFiles::makeFolder(folder);
        const QStringList arguments{QStringLiteral("-xzf"), archive, QStringLiteral("-C"), folder};
        // tar warns about the leading "/" and still exits 0.
        const QString warning = tarErrorText(arguments);
        QVERIFY2(warning.contains(QStringLiteral("Removing leading")), qPrintable(warning));
        QCOMPARE(runTar(arguments), QString());
        QCOMPARE(runTar({QStringLiteral("-tzf"), archive}), QStringLiteral("/abs/member\n"));
    }
    void runTarStartErrorsPassThrough() {
        // With no descriptor left for the capture files tar's output cannot be captured: that is
        // the platform's error, not an archive failure.
        bool platformError = false;
        DescriptorLimit::seen<FileWriteError>();
        {
            const DescriptorLimit limit(1); // the first capture file opens, the second cannot
            QVERIFY(limit.active());
            try {
                runTar({QStringLiteral("--version")});
            } catch (const LauncherError&) {
                QFAIL("a start failure must not become a LauncherError");
            } catch (const std::system_error&) {
                platformError = true;
            }
        }
        QVERIFY(platformError);
        QVERIFY(runTar({QStringLiteral("--version")}).contains(QStringLiteral("GNU tar")));
    }
};

QTEST_GUILESS_MAIN(TestArchive)
#include "TestArchive.moc"
