// The launcher's own place on the desktop: which starts add it by themselves, and what
// --integrate and --uninstall do and say.

#include "RecordingPlatform.h"
#include "TestFiles.h"

#include "app/DesktopCommands.h"
#include "platform/FileManager.h"

#include <QDir>
#include <QTemporaryDir>
#include <QTest>

#include <cstdio>

namespace {

// What a command wrote to a stream, read back from the file behind it.
struct Captured {
    std::FILE* stream = std::tmpfile();
    ~Captured() { std::fclose(stream); }
    QByteArray text() const {
        std::fflush(stream);
        std::rewind(stream);
        QByteArray bytes;
        char buffer[4096];
        for (std::size_t got; (got = std::fread(buffer, 1, sizeof buffer, stream)) > 0;)
            bytes.append(buffer, qsizetype(got));
        return bytes;
    }
};

} // namespace

class TestDesktopCommands : public QObject {
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> dir_;
    QString path(const QString& name) const { return dir_->filePath(name); }

private slots:
    void init() {
        dir_ = std::make_unique<QTemporaryDir>();
        qputenv("XDG_DATA_HOME", QFile::encodeName(path("data")));
        qputenv("XDG_CONFIG_HOME", QFile::encodeName(path("config")));
    }

    void startsIntegrateOutsideBuildAndTemporaryFolders_data() {
        QTest::addColumn<QString>("bundle");
        QTest::addColumn<bool>("integrates");
        QTest::newRow("a player's folder") << "/home/p/Games/ZenthoLauncher.app" << true;
        QTest::newRow("an installed one") << "/home/p/.local/lib/zentho/ZenthoLauncher.app" << true;
        QTest::newRow("not a bundle") << "/home/p/Games/ZenthoLauncher" << false;
        QTest::newRow("/tmp") << "/tmp/x/ZenthoLauncher.app" << false;
        QTest::newRow("/var/tmp") << "/var/tmp/ZenthoLauncher.app" << false;
        QTest::newRow("/tmpfoo is not /tmp") << "/tmpfoo/ZenthoLauncher.app" << true;
    }
    void startsIntegrateOutsideBuildAndTemporaryFolders() {
        QFETCH(QString, bundle);
        QFETCH(bool, integrates);
        QCOMPARE(DesktopCommands::startsIntegrate(FileManager::defaultManager(), bundle), integrates);
    }

    void buildFoldersAndTheTemporaryFolderDoNot() {
        const FileManager& files = FileManager::defaultManager();
        // The folder the build lays the bundle out in holds CMakeCache.txt; a folder below it is
        // no build folder.
        const QString build = qEnvironmentVariable("ZENTHO_BUILD_DIR");
        QVERIFY(QFile::exists(build + QStringLiteral("/CMakeCache.txt")));
        QVERIFY(!DesktopCommands::startsIntegrate(files, build + QStringLiteral("/ZenthoLauncher.app")));
        QVERIFY(DesktopCommands::startsIntegrate(files, build + QStringLiteral("/launcher-0.2.0/ZenthoLauncher.app")));
        // The temporary folder the launcher uses, wherever $TMPDIR puts it.
        const QString scratch = path("scratch");
        TestFiles::makeFolder(scratch);
        qputenv("TMPDIR", QFile::encodeName(scratch));
        QVERIFY(!DesktopCommands::startsIntegrate(files, scratch + QStringLiteral("/ZenthoLauncher.app")));
        qunsetenv("TMPDIR");
    }

    void integrateWritesAndSaysWhat() {
        const QString executable = path("Games/ZenthoLauncher.app/Contents/MacOS/ZenthoLauncher");
        TestFiles::writeScript(executable, "exit 0\n");
        RecordingPlatform platform(executable, {executable});
        Captured output;
        Captured errors;
        QCOMPARE(DesktopCommands::integrate(FileManager::defaultManager(), platform, output.stream, errors.stream), 0);
        const QString said = QString::fromUtf8(output.text());
        QVERIFY2(said.contains(QStringLiteral("Wrote %1").arg(path("data/applications/zentho-launcher.desktop"))),
                 qPrintable(said));
        QVERIFY(said.contains(path("config/mimeapps.list")));
        QCOMPARE(errors.text(), QByteArray());
        QVERIFY(QFile::exists(path("data/applications/zentho-launcher.desktop")));
    }

    // The twin: a folder that cannot be written fails with the reason and status 1.
    void integrateIntoAnUnwritableFolderFails() {
        TestFiles::writeFile(path("data"), "a file where the data folder should be");
        const QString executable = path("Games/ZenthoLauncher.app/Contents/MacOS/ZenthoLauncher");
        RecordingPlatform platform(executable, {executable});
        Captured output;
        Captured errors;
        QCOMPARE(DesktopCommands::integrate(FileManager::defaultManager(), platform, output.stream, errors.stream), 1);
        QVERIFY(errors.text().startsWith("could not add the launcher to the desktop: "));
        QCOMPARE(output.text(), QByteArray());
    }

    void uninstallRemovesAndSaysWhatItKept() {
        const QString executable = path("Games/ZenthoLauncher.app/Contents/MacOS/ZenthoLauncher");
        TestFiles::writeScript(executable, "exit 0\n");
        RecordingPlatform platform(executable, {executable});
        Captured ignored;
        QCOMPARE(DesktopCommands::integrate(FileManager::defaultManager(), platform, ignored.stream, ignored.stream), 0);
        TestFiles::writeFile(path("data/Zentho/launcher/current-macos.json"), "{}");
        Captured output;
        Captured errors;
        QCOMPARE(DesktopCommands::uninstall(FileManager::defaultManager(), platform, output.stream, errors.stream), 0);
        const QString said = QString::fromUtf8(output.text());
        QVERIFY2(said.contains(QStringLiteral("Removed %1\n").arg(path("data/applications/zentho-launcher.desktop"))),
                 qPrintable(said));
        QVERIFY(said.contains(QStringLiteral("Removed the zentho: link handler from %1\n").arg(path("config/mimeapps.list"))));
        QVERIFY(said.contains(QStringLiteral("Kept the player's builds, the current-build record and the game's data in %1\n")
                                  .arg(path("data/Zentho"))));
        QVERIFY(said.contains(path("Games/ZenthoLauncher.app")));
        QVERIFY(!QFile::exists(path("data/applications/zentho-launcher.desktop")));
        QVERIFY(QFile::exists(path("data/Zentho/launcher/current-macos.json")));
        // Again: nothing left to remove, and it says so.
        Captured again;
        QCOMPARE(DesktopCommands::uninstall(FileManager::defaultManager(), platform, again.stream, errors.stream), 0);
        QVERIFY(again.text().startsWith("The desktop held nothing of the launcher.\n"));
    }
};

QTEST_GUILESS_MAIN(TestDesktopCommands)
#include "TestDesktopCommands.moc"
