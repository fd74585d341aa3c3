// A player unpacks the launcher bundle anywhere and starts it: the real launcher adds itself to
// the desktop on its first start, points the desktop at its new place after a move, leaves the
// desktop alone where it should, and takes itself off again with --uninstall.
//
// Each start runs in a private mount namespace in which the test's folders of unpacked bundles
// are bind-mounted at /mnt or /srv: a place that is neither a build folder nor a temporary folder,
// as a player's own folder is, while nothing outside the test's temporary folder changes.

#include "RealLauncher.h"
#include "TestFiles.h"
#include "TestRequirements.h"

#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>
#include <QUrl>

namespace {

const QString kBundleName = QStringLiteral("ZenthoLauncher.app");
const QString kInvite = QStringLiteral("zentho://join/first-start");

QString builtBundle() {
    return qEnvironmentVariable("ZENTHO_BUILD_DIR") + QLatin1Char('/') + kBundleName;
}

struct Finished {
    int exitCode = -1; // -1: it did not end by itself, or crashed
    QString output;
};

} // namespace

class TestFirstStart : public QObject {
    Q_OBJECT

    QTemporaryDir dir_;

    QString path(const QString& name) const { return dir_.filePath(name); }
    QString entry() const { return path(QStringLiteral("data/applications/zentho-launcher.desktop")); }
    QString record() const { return path(QStringLiteral("game-record")); }

    // Runs the launcher of the bundle in `folder` as `mountedAt`/ZenthoLauncher.app (or, with an
    // empty `mountedAt`, from `folder` itself) with `arguments`, a private data and config home
    // and manifests that cannot be read, so a link ends in the seed game's start; returns once it
    // has ended by itself, after the game it started has been ended too.
    Finished start(const QString& folder, const QString& mountedAt, const QStringList& arguments,
                   const QString& alsoMount = {}, const QString& alsoAt = {}) {
        QFile::remove(record());
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("HOME"), path(QStringLiteral("home")));
        env.insert(QStringLiteral("XDG_DATA_HOME"), path(QStringLiteral("data")));
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), path(QStringLiteral("config")));
        env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
        env.insert(QStringLiteral("ZENTHO_UPDATE_MANIFEST"), QUrl::fromLocalFile(path(QStringLiteral("none.json"))).toString());
        env.insert(QStringLiteral("ZENTHO_LAUNCHER_UPDATE_MANIFEST"),
                   QUrl::fromLocalFile(path(QStringLiteral("none.json"))).toString());
        env.insert(QStringLiteral("ZENTHO_STANDIN_RECORD"), record());
        const QString at = mountedAt.isEmpty() ? folder : mountedAt;
        const QString mounts = QStringLiteral("mount --bind \"$1\" \"$2\" && { [ -z \"$3\" ] || mount --bind \"$3\" \"$4\"; }");
        QProcess launcher;
        launcher.setProcessEnvironment(env);
        launcher.setProcessChannelMode(QProcess::MergedChannels);
        if (mountedAt.isEmpty()) {
            launcher.start(at + QLatin1Char('/') + kBundleName + QStringLiteral("/Contents/MacOS/ZenthoLauncher"), arguments);
        } else {
            launcher.start(QStringLiteral("unshare"),
                           QStringList{QStringLiteral("-m"), QStringLiteral("--propagation"), QStringLiteral("private"),
                                       QStringLiteral("sh"), QStringLiteral("-c"),
                                       mounts + QStringLiteral(" && shift 4 && exec \"$@\""), QStringLiteral("sh"),
                                       folder, mountedAt, alsoMount, alsoAt,
                                       at + QLatin1Char('/') + kBundleName + QStringLiteral("/Contents/MacOS/ZenthoLauncher")} +
                               arguments);
        }
        Finished finished;
        if (launcher.waitForFinished(120000) && launcher.exitStatus() == QProcess::NormalExit)
            finished.exitCode = launcher.exitCode();
        else
            launcher.kill();
        launcher.waitForFinished();
        finished.output = QString::fromUtf8(launcher.readAll());
        // The seed game the link started runs on; it is this test's to end.
        if (const qint64 game = RealLauncher::recordedPid(TestFiles::readFile(record())); game > 0)
            RealLauncher::terminateAndCollect(game);
        return finished;
    }

    // An unpacked copy of the built bundle in the test's folder `name`.
    QString unpacked(const QString& name) {
        const QString folder = path(name);
        QDir().mkpath(folder);
        if (!QFileInfo::exists(folder + QLatin1Char('/') + kBundleName))
            QProcess::execute(QStringLiteral("cp"), {QStringLiteral("-a"), builtBundle(), folder});
        return folder;
    }

    QString entryExec() const {
        for (const QByteArray& line : TestFiles::readFile(entry()).split('\n'))
            if (line.startsWith("Exec="))
                return QString::fromUtf8(line.mid(5));
        return {};
    }

private slots:
    void initTestCase() {
        ZENTHO_REQUIRE(root);
        QVERIFY(dir_.isValid());
        QVERIFY(QFileInfo(builtBundle()).isDir());
        // The seed games the launcher starts come to this test, which ends them.
        QVERIFY(RealLauncher::becomeSubreaper());
        QVERIFY(QFileInfo::exists(unpacked(QStringLiteral("games")) + QLatin1Char('/') + kBundleName));
    }

    void init() {
        QDir(path(QStringLiteral("data"))).removeRecursively();
        QDir(path(QStringLiteral("config"))).removeRecursively();
    }

    void firstStartAddsTheLauncherToTheDesktop() {
        const Finished run = start(path(QStringLiteral("games")), QStringLiteral("/mnt"), {kInvite});
        QVERIFY2(run.exitCode == 0, qPrintable(run.output));
        QVERIFY(TestFiles::readFile(record()).contains("arg=" + kInvite.toUtf8()));
        QCOMPARE(entryExec(), QStringLiteral("/mnt/ZenthoLauncher.app/Contents/MacOS/ZenthoLauncher %u"));
        QVERIFY(QFileInfo::exists(path(QStringLiteral("data/icons/hicolor/scalable/apps/zentho-launcher.svg"))));
        QVERIFY(QFileInfo::exists(path(QStringLiteral("data/metainfo/invalid.zentho.launcher.metainfo.xml"))));
        QVERIFY(TestFiles::readFile(path(QStringLiteral("config/mimeapps.list")))
                    .contains("x-scheme-handler/zentho=zentho-launcher.desktop\n"));
    }

    // The twin: a launcher started from a temporary folder (here the test's own) plays all the
    // same and leaves the desktop alone: the game it started came after the place where it would
    // have written the entry.
    void startFromATemporaryFolderLeavesTheDesktopAlone() {
        const Finished run = start(path(QStringLiteral("games")), {}, {kInvite});
        QVERIFY2(run.exitCode == 0, qPrintable(run.output));
        QVERIFY(TestFiles::readFile(record()).contains("arg=" + kInvite.toUtf8()));
        QVERIFY(!QFileInfo::exists(entry()));
        QVERIFY(!QFileInfo::exists(path(QStringLiteral("config/mimeapps.list"))));
    }

    // Nor does the build's own bundle, run from the build folder.
    void startFromTheBuildFolderLeavesTheDesktopAlone() {
        const Finished run = start(qEnvironmentVariable("ZENTHO_BUILD_DIR"), {}, {kInvite});
        QVERIFY2(run.exitCode == 0, qPrintable(run.output));
        QVERIFY(TestFiles::readFile(record()).contains("arg=" + kInvite.toUtf8()));
        QVERIFY(!QFileInfo::exists(entry()));
    }

    void movedBundleRepointsTheDesktop() {
        QVERIFY(start(path(QStringLiteral("games")), QStringLiteral("/mnt"), {kInvite}).exitCode == 0);
        const QByteArray handler = TestFiles::readFile(path(QStringLiteral("config/mimeapps.list")));
        // The same bundle, now at /srv: /mnt holds no launcher any more.
        const Finished moved = start(path(QStringLiteral("games")), QStringLiteral("/srv"), {kInvite});
        QVERIFY2(moved.exitCode == 0, qPrintable(moved.output));
        QCOMPARE(entryExec(), QStringLiteral("/srv/ZenthoLauncher.app/Contents/MacOS/ZenthoLauncher %u"));
        QCOMPARE(TestFiles::readFile(path(QStringLiteral("config/mimeapps.list"))), handler);
    }

    // The twin: while the bundle the entry names is still there, another copy keeps its hands off.
    void anotherCopyLeavesTheEntryToTheFirst() {
        QVERIFY(start(path(QStringLiteral("games")), QStringLiteral("/mnt"), {kInvite}).exitCode == 0);
        const QString copy = unpacked(QStringLiteral("copy"));
        const Finished other = start(copy, QStringLiteral("/srv"), {kInvite}, path(QStringLiteral("games")),
                                     QStringLiteral("/mnt"));
        QVERIFY2(other.exitCode == 0, qPrintable(other.output));
        QVERIFY(TestFiles::readFile(record()).contains("arg=" + kInvite.toUtf8()));
        QCOMPARE(entryExec(), QStringLiteral("/mnt/ZenthoLauncher.app/Contents/MacOS/ZenthoLauncher %u"));
    }

    void uninstallTakesItOffAndSaysWhatItKept() {
        QVERIFY(start(path(QStringLiteral("games")), QStringLiteral("/mnt"), {kInvite}).exitCode == 0);
        TestFiles::writeFile(path(QStringLiteral("data/Zentho/launcher/versions/0.2.0/zentho")), "build");
        const Finished uninstalled = start(path(QStringLiteral("games")), QStringLiteral("/mnt"), {QStringLiteral("--uninstall")});
        QCOMPARE(uninstalled.exitCode, 0);
        QVERIFY2(uninstalled.output.contains(QStringLiteral("Removed %1\n").arg(entry())), qPrintable(uninstalled.output));
        QVERIFY(uninstalled.output.contains(
            QStringLiteral("Kept the player's builds, the current-build record and the game's data in %1\n")
                .arg(path(QStringLiteral("data/Zentho")))));
        QVERIFY(uninstalled.output.contains(QStringLiteral("/mnt/ZenthoLauncher.app")));
        QVERIFY(!QFileInfo::exists(entry()));
        QVERIFY(!QFileInfo::exists(path(QStringLiteral("config/mimeapps.list"))));
        QVERIFY(QFileInfo::exists(path(QStringLiteral("data/Zentho/launcher/versions/0.2.0/zentho"))));
    }
};

QTEST_GUILESS_MAIN(TestFirstStart)
#include "TestFirstStart.moc"
