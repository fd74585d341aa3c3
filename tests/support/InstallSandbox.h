#pragma once

#include "LauncherModelProbe.h"
#include "RecordingPlatform.h"
#include "ScopedDataHome.h"
#include "TestArchives.h"
#include "TestFiles.h"
#include "TaskOutcome.h"
#include "TestServer.h"

#include "errors/FileError.h"
#include "errors/LauncherError.h"
#include "model/LauncherModel.h"
#include "net/HttpClient.h"
#include "storage/InstalledState.h"

#include <QCoroTask>
#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

inline const QString kDownloading = QStringLiteral("Downloading into ZENTHO storage...");
inline const QString kInstalling = QStringLiteral("Installing verified update...");
inline const QString kPrevious = QStringLiteral("0.1.0");

inline QStringList entriesOf(const QString& folder) {
    return QDir(folder).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden |
                                      QDir::System,
                                  QDir::Name);
}

// How an install ended, in a form a data table can name.
inline QString outcomeOf(const std::exception_ptr& error) {
    if (!error)
        return QStringLiteral("ok");
    try {
        std::rethrow_exception(error);
    } catch (const LauncherError& e) {
        switch (e.errorCase()) {
        case LauncherError::Case::downloadFailed: return QStringLiteral("downloadFailed");
        case LauncherError::Case::hashMismatch: return QStringLiteral("hashMismatch");
        case LauncherError::Case::unsafeArchive: return QStringLiteral("unsafeArchive");
        case LauncherError::Case::missingExecutable: return QStringLiteral("missingExecutable");
        case LauncherError::Case::archiveFailed: return QStringLiteral("archiveFailed");
        default: return QStringLiteral("LauncherError: ") + e.errorDescription();
        }
    } catch (const FileError&) {
        return QStringLiteral("FileError");
    } catch (const NetworkError&) {
        return QStringLiteral("NetworkError");
    } catch (const std::exception& e) {
        return QStringLiteral("other: ") + QString::fromUtf8(e.what());
    }
}

// Installs under test run against a real nginx over HTTPS with archives made by tar at test
// time. Each case gets a fresh sandbox: its own data home with a previous build recorded as
// current, its own temporary folder (where the download lands), an empty working folder and an
// empty "outside" folder that hostile archives aim at, so that anything the install writes where
// it should not shows up. Test classes call startServer, setUpSandbox and tearDownSandbox from
// their initTestCase, init and cleanup.
class InstallSandbox : public QObject {
protected:

    std::unique_ptr<TestServer> server_;
    std::unique_ptr<QTemporaryDir> sandbox_;
    std::unique_ptr<ScopedDataHome> home_;
    std::unique_ptr<RecordingPlatform> platform_;
    std::unique_ptr<LauncherModel> model_;
    QStringList statuses_;
    QByteArray previousState_;
    QStringList previousVersions_;
    QString previousCwd_;
    QByteArray previousTmpdir_;
    int served_ = 0;

    QString sandbox(const QString& name) const { return sandbox_->filePath(name); }
    QString tmp() const { return sandbox(QStringLiteral("tmp")); }
    QString outside() const { return sandbox(QStringLiteral("outside")); }
    QString cwd() const { return sandbox(QStringLiteral("cwd")); }
    QString previousBuild() const { return home_->versionsRoot() + QLatin1Char('/') + kPrevious; }

    // Puts `archive` on the server under a fresh name and returns its https address.
    QUrl serve(const QString& archive, const QString& prefix = QString()) {
        const QString name = QStringLiteral("builds/%1.tar.gz").arg(++served_);
        server_->writeFile(name, TestFiles::readFile(archive));
        return server_->url(prefix + QLatin1Char('/') + name);
    }
    QString scratch(const QString& name) const { return sandbox(QStringLiteral("scratch/") + name); }

    // A build archive: "zentho" at the top and a data file.
    QString buildArchive(const QString& name) {
        const QString folder = scratch(name);
        TestFiles::makeBuild(folder);
        TestFiles::writeFile(folder + QStringLiteral("/data/pak0"), "pak0");
        const QString archive = scratch(name + QStringLiteral(".tar.gz"));
        TestArchives::create(archive, folder, {QStringLiteral("zentho"), QStringLiteral("data")});
        return archive;
    }
    // A build archive that also holds one member stored under `hostileName`.
    QString archiveWithName(const QString& hostileName) {
        const QString folder = scratch(QStringLiteral("named"));
        TestFiles::makeBuild(folder);
        TestFiles::writeFile(folder + QStringLiteral("/member"), "payload\n");
        const QString archive = scratch(QStringLiteral("named.tar.gz"));
        TestArchives::create(archive, folder, {QStringLiteral("zentho"), QStringLiteral("member")},
                             {QStringLiteral("-P"),
                              QStringLiteral("--transform=s|^member$|%1|").arg(hostileName)});
        return archive;
    }

    ReleaseManifest manifestFor(const QString& version, const QUrl& url, const QString& archive,
                                const QString& executable = QStringLiteral("zentho")) {
        return ReleaseManifest{version, QStringLiteral("macos-arm64"), url,
                               TestArchives::sha256sum(archive), executable};
    }

    static QCoro::Task<void> keepFolder(QCoro::Task<QUrl> task, QUrl* folder) {
        const QUrl result = co_await std::move(task);
        if (folder)
            *folder = result;
    }
    std::exception_ptr install(const ReleaseManifest& manifest, QUrl* folder = nullptr) {
        return waitForOutcome(keepFolder(LauncherModelProbe::install(*model_, manifest), folder));
    }

    // Everything a failed install must leave as it was.
    void verifyNothingChanged() {
        QCOMPARE(TestFiles::readFile(home_->statePath()), previousState_);
        QVERIFY(QFileInfo(previousBuild() + QStringLiteral("/zentho")).isExecutable());
        QCOMPARE(entriesOf(home_->launcherRoot()),
                 (QStringList{QStringLiteral("current-macos.json"), QStringLiteral("versions")}));
        QCOMPARE(entriesOf(home_->versionsRoot()), previousVersions_);
        QCOMPARE(entriesOf(home_->path()), QStringList{QStringLiteral("Zentho")});
        QCOMPARE(entriesOf(home_->path() + QStringLiteral("/Zentho")),
                 QStringList{QStringLiteral("launcher")});
        QCOMPARE(model_->installedVersion(), kPrevious);
        verifyNoStrayFiles();
    }
    // Nothing outside the launcher's storage, and no download left in the temporary folder.
    void verifyNoStrayFiles() {
        QCOMPARE(entriesOf(tmp()), QStringList());
        QCOMPARE(entriesOf(cwd()), QStringList());
        QCOMPARE(entriesOf(outside()), QStringList());
    }
    void verifyInstalled(const QString& version, const QUrl& folder,
                         const QString& executable = QStringLiteral("zentho")) {
        const QString expected = home_->versionsRoot() + QLatin1Char('/') + version;
        QCOMPARE(folder, QUrl::fromLocalFile(expected));
        QCOMPARE(TestFiles::readFile(home_->statePath()), (InstalledState{version, expected}).encode());
        QCOMPARE(TestFiles::modeOf(expected + QLatin1Char('/') + executable), 0755);
        QCOMPARE(model_->installedVersion(), version);
        const auto builds = model_->installedBuilds();
        QVERIFY(std::any_of(builds.cbegin(), builds.cend(),
                            [&](const InstalledBuild& b) { return b.path == expected; }));
        QVERIFY(QFileInfo(previousBuild() + QStringLiteral("/zentho")).isExecutable());
        for (const QString& entry : entriesOf(home_->launcherRoot()))
            QVERIFY2(!entry.startsWith(QStringLiteral("staging-")), qPrintable(entry));
        verifyNoStrayFiles();
    }

    void startServer() {
        server_ = std::make_unique<TestServer>();
        TestServer::trustInThisProcess();
        previousCwd_ = QDir::currentPath();
        previousTmpdir_ = qgetenv("TMPDIR");
    }

    void setUpSandbox() {
        sandbox_ = std::make_unique<QTemporaryDir>();
        QVERIFY(sandbox_->isValid());
        for (const QString& folder : {tmp(), outside(), cwd(), sandbox(QStringLiteral("scratch"))})
            TestFiles::makeFolder(folder);
        home_ = std::make_unique<ScopedDataHome>();
        TestFiles::makeBuild(previousBuild());
        TestFiles::writeFile(home_->statePath(), InstalledState{kPrevious, previousBuild()}.encode());
        previousState_ = TestFiles::readFile(home_->statePath());
        previousVersions_ = entriesOf(home_->versionsRoot());
        QVERIFY(QDir::setCurrent(cwd()));
        qputenv("TMPDIR", QFile::encodeName(tmp()));

        platform_ = std::make_unique<RecordingPlatform>();
        model_ = std::make_unique<LauncherModel>(*platform_);
        QCOMPARE(model_->installedVersion(), kPrevious);
        statuses_.clear();
        connect(model_.get(), &LauncherModel::statusChanged, this,
                [this] { statuses_.append(model_->status()); });
    }

    void tearDownSandbox() {
        model_.reset();
        platform_.reset();
        QDir::setCurrent(previousCwd_);
        qputenv("TMPDIR", previousTmpdir_);
        home_.reset();
        sandbox_.reset();
    }
};
