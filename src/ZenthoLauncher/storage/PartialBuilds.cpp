#include "storage/PartialBuilds.h"

#include "platform/FileManager.h"

#include <QDir>
#include <QFileInfo>

namespace {

const QString kPrefix = QStringLiteral("chunk-build-");

} // namespace

PartialBuilds::PartialBuilds(const FileManager& files, QString launcherRoot)
    : files_(files), launcherRoot_(std::move(launcherRoot)) {}

QString PartialBuilds::folderFor(const QString& indexSha256) const {
    return launcherRoot_ + QLatin1Char('/') + kPrefix + indexSha256;
}

bool PartialBuilds::takeUp(const QString& folder) const {
    const QFileInfo left(folder);
    if (left.isDir() && !left.isSymLink())
        return true;
    if (left.exists() || left.isSymLink())
        files_.removeItem(folder);
    return false;
}

void PartialBuilds::removeAllBut(const QString& keep) const {
    const QFileInfoList entries =
        QDir(launcherRoot_).entryInfoList({kPrefix + QLatin1Char('*')}, QDir::Dirs | QDir::Hidden | QDir::NoDotAndDotDot);
    for (const QFileInfo& entry : entries) {
        if (entry.isSymLink() || entry.filePath() == keep)
            continue;
        try {
            files_.removeItem(entry.filePath());
        } catch (const std::exception&) {
        }
    }
}
