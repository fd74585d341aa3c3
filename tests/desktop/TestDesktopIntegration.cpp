// What the launcher writes into a player's XDG folders to be known by the desktop, and how it
// decides whether a start must write them: against real files in a private data and config home,
// checked with the desktop's own validators.

#include "TestFiles.h"

#include "desktop/DesktopIntegration.h"
#include "platform/FileManager.h"

#include <QDir>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

namespace {

int lineCount(const QByteArray& text, const QByteArray& line) {
    return int(text.split('\n').count(line));
}

int run(const QString& program, const QStringList& arguments, QByteArray* output = nullptr) {
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, arguments);
    if (!process.waitForFinished(60000))
        return -1;
    if (output)
        *output = process.readAll();
    return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
}

} // namespace

class TestDesktopIntegration : public QObject {
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> dir_;
    std::unique_ptr<DesktopIntegration> desktop_;

    QString path(const QString& name) const { return dir_->filePath(name); }
    // A launcher bundle's executable at `folder`, as the entry names it.
    QString launcherAt(const QString& folder) const {
        const QString executable = path(folder + QStringLiteral("/ZenthoLauncher.app/Contents/MacOS/ZenthoLauncher"));
        TestFiles::writeScript(executable, "exit 0\n");
        return executable;
    }

private slots:
    void init() {
        dir_ = std::make_unique<QTemporaryDir>();
        desktop_ = std::make_unique<DesktopIntegration>(
            FileManager::defaultManager(), DesktopIntegration::Folders{path("data"), path("config")});
    }

    void playerFoldersFollowTheXdgVariables() {
        qputenv("XDG_DATA_HOME", "/x/data");
        qputenv("XDG_CONFIG_HOME", "/x/config");
        DesktopIntegration::Folders folders = DesktopIntegration::playerFolders(FileManager::defaultManager());
        QCOMPARE(folders.dataHome, QStringLiteral("/x/data"));
        QCOMPARE(folders.configHome, QStringLiteral("/x/config"));
        // Relative values do not count: the home folder's defaults do.
        qputenv("XDG_DATA_HOME", "relative");
        qunsetenv("XDG_CONFIG_HOME");
        qputenv("HOME", "/home/player");
        folders = DesktopIntegration::playerFolders(FileManager::defaultManager());
        QCOMPARE(folders.dataHome, QStringLiteral("/home/player/.local/share"));
        QCOMPARE(folders.configHome, QStringLiteral("/home/player/.config"));
    }

    void integrationWritesEntryIconDataAndHandler() {
        const QString launcher = launcherAt(QStringLiteral("Games"));
        desktop_->integrate(launcher);
        const QByteArray entry = TestFiles::readFile(path("data/applications/zentho-launcher.desktop"));
        QCOMPARE(lineCount(entry, "Exec=" + QFile::encodeName(launcher) + " %u"), 1);
        QCOMPARE(lineCount(entry, "TryExec=" + QFile::encodeName(launcher)), 1);
        QCOMPARE(lineCount(entry, "MimeType=x-scheme-handler/zentho;"), 1);
        QVERIFY(TestFiles::readFile(path("data/icons/hicolor/scalable/apps/zentho-launcher.svg")).contains("<svg"));
        QVERIFY(TestFiles::readFile(path("data/metainfo/invalid.zentho.launcher.metainfo.xml"))
                    .contains("<id>invalid.zentho.launcher</id>"));
        QCOMPARE(TestFiles::readFile(path("config/mimeapps.list")),
                 QByteArray("[Default Applications]\nx-scheme-handler/zentho=zentho-launcher.desktop\n"));

        QByteArray said;
        QCOMPARE(run(QStringLiteral("/usr/bin/desktop-file-validate"), {desktop_->entryPath()}, &said), 0);
        QCOMPARE(said, QByteArray());
        QCOMPARE(run(QStringLiteral("/usr/bin/appstreamcli"),
                     {QStringLiteral("validate"), QStringLiteral("--no-net"), desktop_->metainfoPath()}, &said),
                 0);
        QVERIFY2(!said.contains("\nW:") && !said.contains("\nE:"), said.constData());
    }

    void unusualPathsAreQuotedForTheDesktop() {
        QCOMPARE(DesktopIntegration::execValue(QStringLiteral("/opt/games/ZenthoLauncher")),
                 QStringLiteral("/opt/games/ZenthoLauncher"));
        // A quoted argument whose dollar is escaped for the argument and whose backslash is
        // escaped once more for the string value.
        QCOMPARE(DesktopIntegration::execValue(QStringLiteral("/home/p/My Games/$x/Z")),
                 QStringLiteral("\"/home/p/My Games/\\\\$x/Z\""));
        QCOMPARE(DesktopIntegration::execValue(QStringLiteral("/a%b")), QStringLiteral("\"/a%%b\""));
        // The written entry still validates.
        desktop_->integrate(launcherAt(QStringLiteral("My Games $HOME")));
        QCOMPARE(run(QStringLiteral("/usr/bin/desktop-file-validate"), {desktop_->entryPath()}), 0);
    }

    void aStartIntegratesOnlyWhatTheDesktopDoesNotKnow() {
        const QString here = launcherAt(QStringLiteral("here"));
        QCOMPARE(desktop_->needFor(here), DesktopIntegration::Need::integrate);
        desktop_->integrate(here);
        QCOMPARE(desktop_->needFor(here), DesktopIntegration::Need::nothing);
        // Another copy that is still there keeps the entry.
        const QString other = launcherAt(QStringLiteral("other"));
        QCOMPARE(desktop_->needFor(other), DesktopIntegration::Need::nothing);
        // Once the bundle the entry names is gone, the copy that starts is that bundle, moved.
        QVERIFY(QDir(path("here")).removeRecursively());
        QCOMPARE(desktop_->needFor(other), DesktopIntegration::Need::repoint);
        desktop_->integrate(other);
        QCOMPARE(desktop_->needFor(other), DesktopIntegration::Need::nothing);
        QCOMPARE(lineCount(TestFiles::readFile(desktop_->entryPath()), "TryExec=" + QFile::encodeName(other)), 1);
    }

    void removalTakesOnlyWhatIntegrationWrote() {
        TestFiles::writeFile(path("config/mimeapps.list"), "[Default Applications]\ntext/html=browser.desktop;\n");
        TestFiles::writeFile(path("data/applications/other.desktop"), "[Desktop Entry]\n");
        desktop_->integrate(launcherAt(QStringLiteral("Games")));
        const QStringList removed = desktop_->remove();
        QCOMPARE(removed, (QStringList{desktop_->entryPath(), desktop_->iconPath(), desktop_->metainfoPath(),
                                       desktop_->mimeappsPath()}));
        for (const QString& gone : {desktop_->entryPath(), desktop_->iconPath(), desktop_->metainfoPath()})
            QVERIFY2(!QFile::exists(gone), qPrintable(gone));
        QCOMPARE(TestFiles::readFile(path("config/mimeapps.list")),
                 QByteArray("[Default Applications]\ntext/html=browser.desktop;\n"));
        QVERIFY(QFile::exists(path("data/applications/other.desktop")));
        QVERIFY(!QFile::exists(path("data/metainfo")));
        // Nothing left to remove: nothing is said to be.
        QCOMPARE(desktop_->remove(), QStringList());
    }

    void aListLeftWithNothingGoes() {
        desktop_->integrate(launcherAt(QStringLiteral("Games")));
        desktop_->remove();
        QVERIFY(!QFile::exists(desktop_->mimeappsPath()));
    }
};

QTEST_GUILESS_MAIN(TestDesktopIntegration)
#include "TestDesktopIntegration.moc"
