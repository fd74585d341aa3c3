#include "errors/LauncherError.h"

#include <QTest>

#include <system_error>

Q_DECLARE_METATYPE(LauncherError)

class TestLauncherError : public QObject {
    Q_OBJECT

private slots:
    void texts_data() {
        QTest::addColumn<LauncherError>("error");
        QTest::addColumn<QString>("text");
        using E = LauncherError;
        QTest::newRow("signature, empty") << E::invalidLauncherSignature({})
                                          << "The launcher signature is invalid.";
        QTest::newRow("signature, detail") << E::invalidLauncherSignature("x") << "x";
        QTest::newRow("exited 0") << E::gameExited(0)
                                  << "The game exited during startup (status 0).";
        QTest::newRow("exited 1") << E::gameExited(1)
                                  << "The game exited during startup (status 1).";
        QTest::newRow("exited -9") << E::gameExited(-9)
                                   << "The game exited during startup (status -9).";
        QTest::newRow("archive, empty") << E::archiveFailed({}) << "";
        QTest::newRow("archive, text") << E::archiveFailed(" tar: boom\n") << " tar: boom\n";
        QTest::newRow("badManifest") << E::badManifest() << "The update manifest is unavailable.";
        QTest::newRow("wrongPlatform") << E::wrongPlatform()
                                       << "This update is not for Apple Silicon Macs.";
        QTest::newRow("downloadFailed") << E::downloadFailed() << "The update download failed.";
        QTest::newRow("hashMismatch") << E::hashMismatch()
                                      << "The update failed its SHA-256 verification.";
        QTest::newRow("unsafeArchive") << E::unsafeArchive()
                                       << "The update archive contains an unsafe path.";
        QTest::newRow("missingExecutable") << E::missingExecutable()
                                           << "The update is missing the game executable.";
        QTest::newRow("badLauncherManifest") << E::badLauncherManifest()
                                             << "The launcher update manifest is unavailable.";
        QTest::newRow("wrongLauncherPlatform")
            << E::wrongLauncherPlatform() << "This launcher update is not for this macOS version.";
        QTest::newRow("missingLauncherExecutable")
            << E::missingLauncherExecutable() << "The update is missing the launcher executable.";
        QTest::newRow("launcherLocationNotWritable")
            << E::launcherLocationNotWritable()
            << "Move the launcher to Applications or another writable folder, then try again.";
    }
    void texts() {
        QFETCH(LauncherError, error);
        QFETCH(QString, text);
        QCOMPARE(error.errorDescription(), text);
        QCOMPARE(describeError(error), text);
        QCOMPARE(QString::fromUtf8(error.what()), text);
    }

    void thirteenDistinctCases() {
        const QList<LauncherError> all{
            LauncherError::invalidLauncherSignature({}), LauncherError::gameExited(0),
            LauncherError::archiveFailed({}),           LauncherError::badManifest(),
            LauncherError::wrongPlatform(),             LauncherError::downloadFailed(),
            LauncherError::hashMismatch(),              LauncherError::unsafeArchive(),
            LauncherError::missingExecutable(),         LauncherError::badLauncherManifest(),
            LauncherError::wrongLauncherPlatform(),     LauncherError::missingLauncherExecutable(),
            LauncherError::launcherLocationNotWritable()};
        QSet<int> cases;
        for (const auto& e : all)
            cases.insert(int(e.errorCase()));
        QCOMPARE(cases.size(), 13);
    }

    void payloadsTakePartInEquality() {
        QCOMPARE(LauncherError::gameExited(3), LauncherError::gameExited(3));
        QVERIFY(!(LauncherError::gameExited(3) == LauncherError::gameExited(4)));
        QVERIFY(!(LauncherError::archiveFailed("a") == LauncherError::archiveFailed("b")));
    }

    void platformErrorsKeepTheirOwnText() {
        const std::system_error error(ENOENT, std::generic_category(), "/x/zentho");
        QCOMPARE(describeError(error), QStringLiteral("/x/zentho: No such file or directory"));
        QCOMPARE(describeError(std::make_exception_ptr(error)),
                 QStringLiteral("/x/zentho: No such file or directory"));
    }
    void launcherErrorsThroughAnExceptionPointerUseTheirDescription() {
        QCOMPARE(describeError(std::make_exception_ptr(LauncherError::hashMismatch())),
                 QStringLiteral("The update failed its SHA-256 verification."));
    }
};

QTEST_GUILESS_MAIN(TestLauncherError)
#include "TestLauncherError.moc"
