// A bundle that lost a part (a player's disk, a half-copied folder) says what is missing in one
// line a player can act on, instead of the dynamic loader's message or a crash; an intact copy of
// the same bundle starts.

#include "TestFiles.h"

#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

namespace {

struct Run {
    int exitCode = -1; // -1: it crashed or did not end
    QByteArray errors;
};

Run runLauncher(const QString& bundle, const QStringList& arguments) {
    QProcess launcher;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    launcher.setProcessEnvironment(env);
    launcher.start(bundle + QStringLiteral("/Contents/MacOS/ZenthoLauncher"), arguments);
    Run run;
    if (launcher.waitForFinished(60000) && launcher.exitStatus() == QProcess::NormalExit)
        run.exitCode = launcher.exitCode();
    else
        launcher.kill();
    launcher.waitForFinished();
    run.errors = launcher.readAllStandardError();
    return run;
}

} // namespace

class TestBrokenBundle : public QObject {
    Q_OBJECT

    QTemporaryDir dir_;
    int copies_ = 0;

    // A fresh copy of the built bundle, with a private data folder for its launcher.
    QString copy() {
        const QString folder = dir_.filePath(QString::number(++copies_));
        QDir().mkpath(folder);
        const QString built = qEnvironmentVariable("ZENTHO_BUILD_DIR") + QStringLiteral("/ZenthoLauncher.app");
        if (QProcess::execute(QStringLiteral("cp"), {QStringLiteral("-a"), built, folder}) != 0)
            return {};
        qputenv("XDG_DATA_HOME", QFile::encodeName(folder + QStringLiteral("/data")));
        return folder + QStringLiteral("/ZenthoLauncher.app");
    }

private slots:
    void intactBundleStarts() {
        const QString bundle = copy();
        const Run run = runLauncher(bundle, {QStringLiteral("--version")});
        QCOMPARE(run.exitCode, 0);
        QCOMPARE(run.errors, QByteArray());
    }

    void missingLibraryIsNamedInOneLine_data() {
        QTest::addColumn<QString>("library");
        QTest::newRow("Qt") << "libQt6Quick.so.6";
        QTest::newRow("a library Qt needs") << "libicuuc.so.72";
        QTest::newRow("the launcher itself") << "libzentho-launcher.so";
    }
    void missingLibraryIsNamedInOneLine() {
        QFETCH(QString, library);
        const QString bundle = copy();
        QVERIFY(QFile::remove(bundle + QStringLiteral("/Contents/Frameworks/") + library));
        const Run run = runLauncher(bundle, {QStringLiteral("--version")});
        QCOMPARE(run.exitCode, 1);
        QCOMPARE(run.errors, QStringLiteral("ZENTHO Launcher cannot start: %1 is missing from its bundle (%2); "
                                            "download the launcher again.\n")
                                 .arg(library, bundle + QStringLiteral("/Contents/Frameworks"))
                                 .toUtf8());
    }

    // The window's QML module gone: the launcher says which, and ends, rather than crash.
    void missingQmlModuleIsNamed() {
        const QString bundle = copy();
        QVERIFY(QDir(bundle + QStringLiteral("/Contents/Resources/qml/QtQuick/Layouts")).removeRecursively());
        const Run run = runLauncher(bundle, {});
        QCOMPARE(run.exitCode, 1);
        QVERIFY2(run.errors.contains("ZENTHO Launcher: cannot show its window: ") &&
                     run.errors.contains("module \"QtQuick.Layouts\" is not installed"),
                 run.errors.constData());
    }
};

QTEST_GUILESS_MAIN(TestBrokenBundle)
#include "TestBrokenBundle.moc"
