// The real launcher and release tool asked for their usage and version, and given an option they
// do not know: an answer and an exit status, without a display and without a window.

#include <QProcess>
#include <QTest>

namespace {

struct Run {
    int exitCode = -1;
    QByteArray output;
    QByteArray errors;
};

QString buildDir() {
    return qEnvironmentVariable("ZENTHO_BUILD_DIR");
}
QString launcher() {
    return buildDir() + QStringLiteral("/ZenthoLauncher.app/Contents/MacOS/ZenthoLauncher");
}
QString releaseTool() {
    return buildDir() + QStringLiteral("/tools/zentho-release");
}

// Runs `program` with no display of any kind: a program that tried to open a window would fail.
Run runHeadless(const QString& program, const QStringList& arguments) {
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    for (const char* name : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM"})
        env.remove(QString::fromLatin1(name));
    QProcess process;
    process.setProcessEnvironment(env);
    process.start(program, arguments);
    if (!process.waitForFinished(30000) || process.exitStatus() != QProcess::NormalExit) {
        process.kill();
        process.waitForFinished();
        return {};
    }
    return {process.exitCode(), process.readAllStandardOutput(), process.readAllStandardError()};
}

} // namespace

class TestCommandLineOptions : public QObject {
    Q_OBJECT

private slots:
    void withoutOptionsTheLauncherNeedsADisplay() {
        // What a start that opens a window looks like here: it cannot, and fails.
        const Run run = runHeadless(launcher(), {});
        QVERIFY(run.exitCode != 0);
    }

    void helpPrintsTheUsage() {
        for (const QString& option : {QStringLiteral("--help"), QStringLiteral("-h")}) {
            const Run run = runHeadless(launcher(), {option});
            QCOMPARE(run.exitCode, 0);
            QVERIFY2(run.output.startsWith("Usage: ZenthoLauncher [LINK]\n"), run.output.constData());
            QVERIFY(run.output.contains("ZENTHO_UPDATE_MANIFEST"));
            QVERIFY(run.output.contains("ZENTHO_LAUNCHER_UPDATE_MANIFEST"));
            QVERIFY(run.output.contains("--version"));
            QCOMPARE(run.errors, QByteArray());
        }
    }

    void versionPrintsTheCompiledInVersion() {
        const Run run = runHeadless(launcher(), {QStringLiteral("--version")});
        QCOMPARE(run.exitCode, 0);
        QCOMPARE(run.output, QByteArray("0.1.190\n"));
        QCOMPARE(run.errors, QByteArray());
    }

    void unknownOptionsAreOneLineAndStatusTwo() {
        for (const QString& option : {QStringLiteral("--bogus"), QStringLiteral("-platform")}) {
            const Run run = runHeadless(launcher(), {option, QStringLiteral("zentho://join/abc")});
            QCOMPARE(run.exitCode, 2);
            QCOMPARE(run.output, QByteArray());
            QCOMPARE(run.errors, "ZenthoLauncher: unknown option \"" + option.toUtf8() + "\" (see --help)\n");
        }
    }

    void releaseToolPrintsItsVersion() {
        const Run run = runHeadless(releaseTool(), {QStringLiteral("--version")});
        QCOMPARE(run.exitCode, 0);
        QCOMPARE(run.output, QByteArray("0.1.190\n"));
        QCOMPARE(run.errors, QByteArray());
        const Run unknown = runHeadless(releaseTool(), {QStringLiteral("--versions")});
        QCOMPARE(unknown.exitCode, 2);
        QCOMPARE(unknown.output, QByteArray());
        QCOMPARE(unknown.errors.count('\n'), 1);
    }
};

QTEST_GUILESS_MAIN(TestCommandLineOptions)
#include "TestCommandLineOptions.moc"
