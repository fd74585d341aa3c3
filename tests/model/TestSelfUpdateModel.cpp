// The launcher's update of itself as the model runs it (the manifest address from the
// environment, the launcher's own storage), and the refusal of a bundle whose folder cannot be
// written, proved with a real read-only mount in a private mount namespace.

#include "LauncherBundles.h"
#include "LauncherModelProbe.h"
#include "LauncherUpdateFixture.h"
#include "ScopedDataHome.h"
#include "TestArchives.h"
#include "TestFiles.h"
#include "TestRequirements.h"
#include "TestServer.h"

#include "errors/LauncherError.h"
#include "model/LauncherModel.h"
#include "platform/FileManager.h"
#include "process/ChildReaper.h"
#include "update/LauncherUpdater.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <memory>
#include <unistd.h>

namespace {

const QString kUuid = QStringLiteral("[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}");
// Set in the copy of this test that runs inside its own mount namespace.
const char kInNamespace[] = "ZENTHO_TEST_IN_MOUNT_NAMESPACE";

bool runQuietly(const QString& program, const QStringList& arguments) {
    QProcess process;
    process.start(program, arguments);
    return process.waitForFinished(30000) && process.exitStatus() == QProcess::NormalExit &&
           process.exitCode() == 0;
}

// The raw text of a symlink (a namespace link reads "mnt:[4026531832]", not a path).
QByteArray linkText(const QByteArray& path) {
    char buffer[256];
    const ssize_t n = ::readlink(path.constData(), buffer, sizeof buffer);
    return n > 0 ? QByteArray(buffer, n) : QByteArray();
}

} // namespace

class TestSelfUpdateModel : public QObject {
    Q_OBJECT

private:
    std::unique_ptr<TestServer> server_;
    std::unique_ptr<LauncherUpdateFixture> f_;
    // The launcher manifest address is read once per process: a local file these cases rewrite.
    QTemporaryDir manifestDir_;
    QString modelManifest_;

    LauncherUpdateFixture& f() { return *f_; }

    // A sealed 0.2.0 launcher served by nginx, named by the manifest the model reads.
    void publishNewLauncherForTheModel() {
        const QString source = f().makeNewBundle();
        const QByteArray archive = TestArchives::bytesOf(source, {QStringLiteral("ZenthoLauncher.app")});
        TestFiles::writeFile(modelManifest_, LauncherUpdateFixture::manifestJson(
                                                 QStringLiteral("0.2.0"), QStringLiteral("macos-launcher-arm64"),
                                                 f().archiveUrl(archive), LauncherUpdateFixture::hexDigest(archive),
                                                 QStringLiteral("ZenthoLauncher.app")));
    }

private slots:
    void initTestCase() {
        ZENTHO_REQUIRE(nginx);
        TestServer::trustInThisProcess();
        try {
            server_ = std::make_unique<TestServer>();
        } catch (const std::exception& error) {
            QFAIL(error.what());
        }
        modelManifest_ = manifestDir_.path() + QStringLiteral("/launcher-manifest.json");
        qputenv("ZENTHO_LAUNCHER_UPDATE_MANIFEST", QUrl::fromLocalFile(modelManifest_).toEncoded());
    }

    void init() { f_ = std::make_unique<LauncherUpdateFixture>(*server_); }

    void cleanup() {
        // A script that is still swapping finishes, and is collected, before its folder goes.
        QTRY_COMPARE_WITH_TIMEOUT(ChildReaper::pendingCount(), 0, 60000);
        f_.reset();
    }

    void modelStaysPutForItsOwnVersion() {
        ScopedDataHome home;
        TestFiles::writeFile(modelManifest_, LauncherUpdateFixture::manifestJson(
                                                 QStringLiteral("0.1.190"), QStringLiteral("macos-launcher-arm64"),
                                                 QStringLiteral("https://127.0.0.1:1/x"), QStringLiteral("x"),
                                                 QStringLiteral("ZenthoLauncher.app")));
        LauncherModel model(f().platform());
        QCOMPARE(LauncherUpdateFixture::wait(LauncherModelProbe::updateLauncherIfNeeded(model)), false);
        QCOMPARE(model.status(), QStringLiteral("Ready"));
        // Nothing was handed over: this launcher still follows the invites it is given.
        QVERIFY(model.followsInvites());
        QVERIFY(!QFileInfo::exists(home.launcherRoot()));
    }

    void modelStagesIntoItsStorageAndStartsTheSwap() {
        ScopedDataHome home;
        publishNewLauncherForTheModel();
        LauncherModel model(f().platform());
        QStringList statuses;
        connect(&model, &LauncherModel::statusChanged, this, [&] { statuses.append(model.status()); });
        QCOMPARE(LauncherUpdateFixture::wait(LauncherModelProbe::updateLauncherIfNeeded(model)), true);
        QCOMPARE(statuses, (QStringList{QStringLiteral("Downloading launcher update..."),
                                       QStringLiteral("Verifying launcher update...")}));
        QCOMPARE(LauncherModelProbe::launcherRoot(model), home.launcherRoot());
        QVERIFY(LauncherBundles::waitForRecorded(f().record(), "new\n"));
        const QStringList names = QDir(home.launcherRoot()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot);
        QCOMPARE(names.filter(QRegularExpression(QStringLiteral("^launcher-staging-") + kUuid + QStringLiteral("$"))).size(), 1);
        QCOMPARE(names.filter(QRegularExpression(QStringLiteral("^finish-launcher-update-") + kUuid + QStringLiteral("\\.sh$"))).size(), 1);
        QCOMPARE(names.filter(QRegularExpression(QStringLiteral("^launcher-backup-0\\.1\\.190-") + kUuid + QStringLiteral("\\.app$"))).size(), 1);
        QCOMPARE(f().runningLabel(), QByteArray("new\n"));
    }

    void aPendingInviteGoesToTheNewLauncher() {
        ScopedDataHome home;
        publishNewLauncherForTheModel();
        LauncherModel model(f().platform());
        LauncherModelProbe::setPendingInvite(model, QStringLiteral("zentho://join/first"));
        QCoro::Task<bool> update = LauncherModelProbe::updateLauncherIfNeeded(model);
        // The invite that is pending when the swap is handed over is the one that goes.
        LauncherModelProbe::setPendingInvite(model, QStringLiteral("zentho://join/latest"));
        QVERIFY(model.followsInvites());
        QCOMPARE(LauncherUpdateFixture::wait(std::move(update)), true);
        // The invite is the new launcher's now; one handed over later could not follow it.
        QVERIFY(!model.followsInvites());
        QVERIFY2(LauncherBundles::waitForRecorded(f().record(), "new\n--\nzentho://join/latest\n"),
                 LauncherBundles::recorded(f().record()).constData());
    }

    void readOnlyParentFolderIsRefused() {
        ZENTHO_REQUIRE(root);
        if (!qEnvironmentVariableIsSet(kInNamespace)) {
            // Root may write anywhere a mount allows, so the folder is made read-only by a mount,
            // in a mount namespace of its own that goes away with the process.
            QProcess child;
            QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
            environment.insert(QString::fromLatin1(kInNamespace), QStringLiteral("1"));
            child.setProcessEnvironment(environment);
            child.start(QStringLiteral("/usr/bin/unshare"),
                        {QStringLiteral("-m"), QStringLiteral("--propagation"), QStringLiteral("private"),
                         QCoreApplication::applicationFilePath(), QStringLiteral("readOnlyParentFolderIsRefused")});
            QVERIFY(child.waitForFinished(300000));
            const QByteArray output = child.readAllStandardOutput() + child.readAllStandardError();
            QVERIFY2(child.exitCode() == 0, output.constData());
            QVERIFY2(output.contains("PASS   : TestSelfUpdateModel::readOnlyParentFolderIsRefused()"), output.constData());
            return;
        }
        // Never mount anything in the namespace this test was started from.
        const QByteArray own = linkText("/proc/self/ns/mnt");
        const QByteArray starter = linkText("/proc/" + QByteArray::number(::getppid()) + "/ns/mnt");
        QVERIFY2(!own.isEmpty() && !starter.isEmpty() && own != starter,
                 "not inside a mount namespace of its own");
        const FileManager& files = FileManager::defaultManager();
        const QString parent = QFileInfo(f().runningBundle()).absolutePath();
        // Writable first: the same update would go ahead.
        LauncherUpdater::checkTargetLocation(files, f().runningBundle());
        QVERIFY(runQuietly(QStringLiteral("/bin/mount"), {QStringLiteral("--bind"), parent, parent}));
        QVERIFY(runQuietly(QStringLiteral("/bin/mount"),
                           {QStringLiteral("-o"), QStringLiteral("remount,ro,bind"), parent, parent}));
        QVERIFY(!files.isWritableFile(parent));
        QVERIFY_THROWS_EXCEPTION(LauncherError, LauncherUpdater::checkTargetLocation(files, f().runningBundle()));

        const std::optional<LauncherError> error = f().updateError(f().publishBundle(f().makeNewBundle()));
        QVERIFY(error.has_value());
        QVERIFY(*error == LauncherError::launcherLocationNotWritable());
        // Refused after the staged bundle passed its checks, before anything was started; the
        // refused bundle does not stay.
        QCOMPARE(f().leftovers(QStringLiteral("launcher-staging-")), QStringList());
        QVERIFY(f().nothingStarted());
        QVERIFY(runQuietly(QStringLiteral("/bin/umount"), {parent}));
    }
};

QTEST_GUILESS_MAIN(TestSelfUpdateModel)
#include "TestSelfUpdateModel.moc"
