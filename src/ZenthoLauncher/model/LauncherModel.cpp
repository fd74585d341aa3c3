#include "model/LauncherModel.h"

#include "identity/LauncherVersion.h"
#include "model/DownloadMeter.h"
#include "platform/FileManager.h"
#include "platform/Platform.h"

#include <QDir>
#include <QFileInfo>

namespace {

// Where the bundle's resources are when the platform cannot say: two folders up from the
// executable named on the command line, then "Resources" (X.app/Contents/MacOS/ZenthoLauncher
// gives X.app/Contents/Resources).
QString resourceFolderFromCommandLine(const QStringList& arguments) {
    const QString program = arguments.isEmpty() ? QString() : arguments.first();
    QString path = QFileInfo(program.isEmpty() ? QDir::currentPath() : program).absoluteFilePath();
    for (int i = 0; i < 2; ++i)
        path = QFileInfo(path).path();
    return QDir::cleanPath(path + QStringLiteral("/Resources"));
}

} // namespace

LauncherModel::LauncherModel(Platform& platform, QObject* parent)
    : QObject(parent),
      status_(QStringLiteral("Ready")),
      installedVersion_(launcherVersion()),
      files(FileManager::defaultManager()),
      platform_(platform),
      layout_(files) {
    const QString resources = platform_.bundleResourceFolder().value_or(
        resourceFolderFromCommandLine(platform_.commandLineArguments()));
    seedRuntime_ = resources + QStringLiteral("/SeedRuntime");
    installedVersion_ = readInstalledState().version;
    refreshInstalledBuilds();
}

LauncherModel::~LauncherModel() = default;

void LauncherModel::setSelectedInstalledPath(const QString& path) {
    if (selectedInstalledPath_ == path)
        return;
    selectedInstalledPath_ = path;
    emit selectedInstalledPathChanged();
}

void LauncherModel::setStatus(const QString& status) {
    if (status_ == status)
        return;
    status_ = status;
    emit statusChanged();
}

void LauncherModel::setBusy(bool busy) {
    if (busy_ == busy)
        return;
    busy_ = busy;
    emit busyChanged();
}

void LauncherModel::setInstalledVersion(const QString& version) {
    if (installedVersion_ == version)
        return;
    installedVersion_ = version;
    emit installedVersionChanged();
}

InstalledState LauncherModel::seedState() const {
    return InstalledState{launcherVersion(), seedRuntime_};
}

InstalledState LauncherModel::readInstalledState() {
    return InstalledState::read(files, stateURL(), seedState());
}

void LauncherModel::refreshInstalledBuilds() {
    const QString previous = selectedInstalledPath_;
    QList<InstalledBuild> builds = scanInstalledBuilds(files, versionsRoot());
    if (builds != installedBuilds()) {
        installedBuilds_.setBuilds(std::move(builds));
        emit installedBuildsChanged();
    }
    const QList<InstalledBuild>& listed = installedBuilds();
    const bool keep = std::any_of(listed.cbegin(), listed.cend(),
                                  [&](const InstalledBuild& b) { return b.path == previous; });
    selectedInstalledPath_ = keep ? previous : listed.isEmpty() ? QString() : listed.first().path;
    // The picker re-reads its selection after every rescan, even when the value stayed the same.
    emit selectedInstalledPathChanged();
}

DownloadMeter LauncherModel::downloadMeter() {
    return DownloadMeter([this](double fraction, const QString& caption) {
        setDownloadProgress(fraction);
        setDownloadCaption(caption);
        platform_.showTaskbarProgress(fraction);
    });
}
