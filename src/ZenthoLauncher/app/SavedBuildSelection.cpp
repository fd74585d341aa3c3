#include "app/SavedBuildSelection.h"

#include <QDir>

std::optional<QStringList> selectSavedBuilds(const QString& versionsRoot, const QString& version, std::FILE* errors) {
    const QStringList names = QDir(versionsRoot).entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
    if (version.isEmpty())
        return names;
    if (!names.contains(version)) {
        std::fprintf(errors, "No saved build %s in %s.\n", qPrintable(version), qPrintable(versionsRoot));
        return std::nullopt;
    }
    return QStringList{version};
}
