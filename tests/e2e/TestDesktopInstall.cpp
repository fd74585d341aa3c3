#include "TestFiles.h"

#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

namespace {

const QString kBundle = QStringLiteral("/lib/zentho/ZenthoLauncher.app");
const QString kHandler = QStringLiteral("x-scheme-handler/zentho=zentho-launcher.desktop");

struct Run {
    int exitCode = -1;
    QString output;
};

// Runs a program to its end with the given additions to the environment.
Run run(const QString& program, const QStringList& args, const QMap<QString, QString>& env = {}) {
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (auto it = env.cbegin(); it != env.cend(); ++it)
        environment.insert(it.key(), it.value());
    process.setProcessEnvironment(environment);
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, args);
    if (!process.waitForFinished(240000) || process.exitStatus() != QProcess::NormalExit)
        return {};
    return {process.exitCode(), QString::fromUtf8(process.readAll())};
}

QString buildDir() { return qEnvironmentVariable("ZENTHO_BUILD_DIR"); }
QString cmake() { return QStandardPaths::findExecutable(QStringLiteral("cmake")); }

int countLines(const QString& text, const QString& line) {
    return int(text.split(QLatin1Char('\n')).count(line));
}

} // namespace

class TestDesktopInstall : public QObject {
    Q_OBJECT

    QTemporaryDir dir_;

    QMap<QString, QString> desktopEnv() const {
        return {{QStringLiteral("HOME"), dir_.filePath(QStringLiteral("home"))},
                {QStringLiteral("XDG_CONFIG_HOME"), dir_.filePath(QStringLiteral("config"))},
                {QStringLiteral("XDG_DATA_HOME"), dir_.filePath(QStringLiteral("data"))}};
    }
    QString mimeapps() const { return dir_.filePath(QStringLiteral("config/mimeapps.list")); }
    QString entryPath() const { return dir_.filePath(QStringLiteral("data/applications/zentho-launcher.desktop")); }

    Run install(const QString& prefix, const QMap<QString, QString>& extraEnv = {}) const {
        QMap<QString, QString> env = desktopEnv();
        env.insert(extraEnv);
        return run(cmake(), {QStringLiteral("--install"), buildDir(), QStringLiteral("--prefix"), prefix}, env);
    }

private slots:
    void initTestCase() {
        QVERIFY(!buildDir().isEmpty());
        QVERIFY(!cmake().isEmpty());
        QVERIFY(QFileInfo(buildDir() + QStringLiteral("/ZenthoLauncher.app/Contents/MacOS/ZenthoLauncher")).isExecutable());
    }

    void installPutsTheBundleAndACommandInThePrefix() {
        const QString prefix = dir_.filePath(QStringLiteral("prefix"));
        const Run result = install(prefix);
        QVERIFY2(result.exitCode == 0, qPrintable(result.output));

        const QFileInfo command(prefix + QStringLiteral("/bin/zentho-launcher"));
        QVERIFY(command.isSymLink());
        QCOMPARE(command.canonicalFilePath(),
                 QFileInfo(prefix + kBundle + QStringLiteral("/Contents/MacOS/ZenthoLauncher")).canonicalFilePath());
        QVERIFY(QFileInfo(prefix + kBundle + QStringLiteral("/Contents/Resources/SeedRuntime/zentho")).isExecutable());
        const Run version = run(command.filePath(), {QStringLiteral("--version")});
        QCOMPARE(version.exitCode, 0);
        QCOMPARE(version.output, QStringLiteral("0.1.190\n"));
    }

    void commandFailsWhenTheBundleIsGone() {
        const QString prefix = dir_.filePath(QStringLiteral("moved"));
        QVERIFY2(install(prefix).exitCode == 0, "install");
        QVERIFY(QDir(prefix + QStringLiteral("/lib")).rename(QStringLiteral("zentho"), QStringLiteral("elsewhere")));
        const Run version = run(prefix + QStringLiteral("/bin/zentho-launcher"), {QStringLiteral("--version")});
        QVERIFY(version.exitCode != 0);
    }

    // The installed launcher adds itself to the user's desktop, in the user's XDG folders,
    // pointing at the bundle where the install put it.
    void installAddsTheLauncherToTheDesktop() {
        const QString prefix = dir_.filePath(QStringLiteral("entry"));
        QVERIFY2(install(prefix).exitCode == 0, "install");
        const QString entry = QString::fromUtf8(TestFiles::readFile(entryPath()));
        QVERIFY(entry.startsWith(QStringLiteral("[Desktop Entry]\n")));
        QCOMPARE(countLines(entry, QStringLiteral("MimeType=x-scheme-handler/zentho;")), 1);
        // A path that needs no quoting stands as it is: xdg-open's generic mode cannot run a
        // quoted one.
        QCOMPARE(countLines(entry, QStringLiteral("Exec=%1%2/Contents/MacOS/ZenthoLauncher %u").arg(prefix, kBundle)), 1);
        QCOMPARE(countLines(entry, QStringLiteral("Name=ZENTHO Launcher")), 1);
        QCOMPARE(countLines(entry, QStringLiteral("Icon=zentho-launcher")), 1);
        QCOMPARE(countLines(entry, QStringLiteral("StartupWMClass=zentho-launcher")), 1);
        const QByteArray icon =
            TestFiles::readFile(dir_.filePath(QStringLiteral("data/icons/hicolor/scalable/apps/zentho-launcher.svg")));
        QVERIFY(icon.contains("<svg"));
        // Nothing of it under the prefix: the desktop's files are the user's.
        QVERIFY(!QFileInfo::exists(prefix + QStringLiteral("/share")));
    }

    void desktopEntryAndAppStreamDataPassTheirValidators() {
        const QString prefix = dir_.filePath(QStringLiteral("validated"));
        QVERIFY2(install(prefix).exitCode == 0, "install");
        const Run desktop = run(QStringLiteral("/usr/bin/desktop-file-validate"), {entryPath()});
        QCOMPARE(desktop.exitCode, 0);
        QCOMPARE(desktop.output, QString());
        const QString metainfo = dir_.filePath(QStringLiteral("data/metainfo/invalid.zentho.launcher.metainfo.xml"));
        const Run appstream = run(QStringLiteral("/usr/bin/appstreamcli"),
                                  {QStringLiteral("validate"), QStringLiteral("--no-net"), metainfo});
        QVERIFY2(appstream.exitCode == 0, qPrintable(appstream.output));
        QVERIFY(appstream.output.contains(QStringLiteral("Validation was successful")));
        QVERIFY2(!appstream.output.contains(QLatin1String("\nW:")) && !appstream.output.contains(QLatin1String("\nE:")),
                 qPrintable(appstream.output));
        // The same validators refuse what Debian 12 does not know.
        QString old = QString::fromUtf8(TestFiles::readFile(entryPath()));
        old.replace(QStringLiteral("Version=1.4"), QStringLiteral("Version=1.5"));
        TestFiles::writeFile(dir_.filePath(QStringLiteral("old.desktop")), old.toUtf8() + "SingleMainWindow=true\n");
        QVERIFY(run(QStringLiteral("/usr/bin/desktop-file-validate"), {dir_.filePath(QStringLiteral("old.desktop"))}).exitCode != 0);
    }

    void unusualPrefixIsQuotedForTheDesktop() {
        const QString prefix = dir_.filePath(QStringLiteral("odd place $HOME"));
        QVERIFY2(install(prefix).exitCode == 0, "install");
        const QString entry = QString::fromUtf8(TestFiles::readFile(entryPath()));
        // In the file: a quoted argument whose dollar is escaped for the argument and its
        // backslash once more for the string value.
        const QString escaped = dir_.filePath(QStringLiteral("odd place \\\\$HOME"));
        QCOMPARE(countLines(entry, QStringLiteral("Exec=\"%1%2/Contents/MacOS/ZenthoLauncher\" %u").arg(escaped, kBundle)), 1);
        QCOMPARE(countLines(entry, QStringLiteral("TryExec=%1%2/Contents/MacOS/ZenthoLauncher").arg(prefix, kBundle)), 1);
        const Run valid = run(QStringLiteral("/usr/bin/desktop-file-validate"), {entryPath()});
        QCOMPARE(valid.exitCode, 0);
        QCOMPARE(valid.output, QString());
    }

    void installRegistersTheHandlerAndKeepsOtherChoices() {
        TestFiles::writeFile(mimeapps(),
                             "[Default Applications]\n"
                             "text/html=browser.desktop;other.desktop;\n"
                             "x-scheme-handler/zentho=old.desktop\n"
                             "\n"
                             "[Added Associations]\n"
                             "image/png=viewer.desktop;\n");
        const QString prefix = dir_.filePath(QStringLiteral("registered"));
        QVERIFY2(install(prefix).exitCode == 0, "install");
        QVERIFY2(install(prefix).exitCode == 0, "second install");
        const QString list = QString::fromUtf8(TestFiles::readFile(mimeapps()));
        QCOMPARE(countLines(list, kHandler), 1);
        QVERIFY(!list.contains(QStringLiteral("old.desktop")));
        QCOMPARE(countLines(list, QStringLiteral("text/html=browser.desktop;other.desktop;")), 1);
        QCOMPARE(countLines(list, QStringLiteral("image/png=viewer.desktop;")), 1);
        // The handler sits in the defaults section, before the next section starts.
        QVERIFY(list.indexOf(kHandler) < list.indexOf(QStringLiteral("[Added Associations]")));
        QVERIFY(list.indexOf(kHandler) > list.indexOf(QStringLiteral("[Default Applications]")));
    }

    // The uninstaller takes the launcher off the desktop, then its bundle and commands go; the
    // player's builds and the game's data stay, and it says where.
    void uninstallRemovesEverythingButThePlayersData() {
        const QString prefix = dir_.filePath(QStringLiteral("uninstalled"));
        QVERIFY2(install(prefix).exitCode == 0, "install");
        const QString kept = dir_.filePath(QStringLiteral("data/Zentho/launcher/current-macos.json"));
        TestFiles::writeFile(kept, "{}");
        const Run result = run(prefix + QStringLiteral("/bin/zentho-launcher-uninstall"), {}, desktopEnv());
        QVERIFY2(result.exitCode == 0, qPrintable(result.output));
        QVERIFY(result.output.contains(QStringLiteral("Removed %1\n").arg(entryPath())));
        QVERIFY(result.output.contains(QStringLiteral("Removed the zentho: link handler from %1\n").arg(mimeapps())));
        QVERIFY(result.output.contains(QStringLiteral("Kept the player's builds, the current-build record and the "
                                                      "game's data in %1\n").arg(dir_.filePath(QStringLiteral("data/Zentho")))));
        QVERIFY(!QFileInfo::exists(entryPath()));
        QVERIFY(!QFileInfo::exists(prefix));
        QVERIFY(QFileInfo::exists(kept));
    }

    // A staged install is somebody else's package: the bundle and the command are laid out, and
    // the desktop is left to each player's first start.
    void stagedInstallLeavesTheDesktopAlone() {
        QFile::remove(mimeapps());
        QFile::remove(entryPath());
        const QString stage = dir_.filePath(QStringLiteral("stage"));
        const QString prefix = QStringLiteral("/usr/local");
        const Run result = install(prefix, {{QStringLiteral("DESTDIR"), stage}});
        QVERIFY2(result.exitCode == 0, qPrintable(result.output));
        QVERIFY(!QFileInfo::exists(mimeapps()));
        QVERIFY(!QFileInfo::exists(entryPath()));
        QVERIFY(QFileInfo(stage + prefix + QStringLiteral("/bin/zentho-launcher")).isSymLink());
        QVERIFY(QFileInfo(stage + prefix + kBundle + QStringLiteral("/Contents/MacOS/ZenthoLauncher")).isExecutable());
        // The uninstaller names where the package will live, not the staging folder.
        const QByteArray uninstall = TestFiles::readFile(stage + prefix + QStringLiteral("/bin/zentho-launcher-uninstall"));
        QVERIFY(uninstall.contains("\nprefix='/usr/local'\n"));
        QVERIFY(!uninstall.contains(QFile::encodeName(stage)));
    }

    void withoutAPrefixTheUsersHomeIsTheDefault() {
        const QString home = dir_.filePath(QStringLiteral("home"));
        const QString source = qEnvironmentVariable("ZENTHO_SOURCE_DIR");
        const QString fresh = dir_.filePath(QStringLiteral("fresh"));
        Run configured = run(cmake(), {QStringLiteral("-S"), source, QStringLiteral("-B"), fresh,
                                       QStringLiteral("-DBUILD_TESTING=OFF")}, desktopEnv());
        QVERIFY2(configured.exitCode == 0, qPrintable(configured.output));
        const QString script = QString::fromUtf8(TestFiles::readFile(fresh + QStringLiteral("/cmake_install.cmake")));
        QVERIFY(script.contains(QStringLiteral("set(CMAKE_INSTALL_PREFIX \"%1/.local\")").arg(home)));

        // A prefix the release engineer names is kept.
        const QString named = dir_.filePath(QStringLiteral("named"));
        configured = run(cmake(), {QStringLiteral("-S"), source, QStringLiteral("-B"), named,
                                   QStringLiteral("-DBUILD_TESTING=OFF"),
                                   QStringLiteral("-DCMAKE_INSTALL_PREFIX=/opt/zentho")}, desktopEnv());
        QVERIFY2(configured.exitCode == 0, qPrintable(configured.output));
        const QString namedScript = QString::fromUtf8(TestFiles::readFile(named + QStringLiteral("/cmake_install.cmake")));
        QVERIFY(namedScript.contains(QStringLiteral("set(CMAKE_INSTALL_PREFIX \"/opt/zentho\")")));
        QVERIFY(!namedScript.contains(QStringLiteral("/.local")));
    }
};

QTEST_GUILESS_MAIN(TestDesktopInstall)
#include "TestDesktopInstall.moc"
