#include "model/InstalledBuildList.h"

InstalledBuildList::InstalledBuildList(QObject* parent) : QAbstractListModel(parent) {}

void InstalledBuildList::setBuilds(QList<InstalledBuild> builds) {
    const int before = count();
    beginResetModel();
    builds_ = std::move(builds);
    endResetModel();
    if (count() != before)
        emit countChanged();
}

int InstalledBuildList::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : count();
}

QVariant InstalledBuildList::data(const QModelIndex& index, int role) const {
    if (!checkIndex(index, CheckIndexOption::IndexIsValid | CheckIndexOption::ParentIsInvalid))
        return {};
    const InstalledBuild& build = builds_.at(index.row());
    switch (role) {
    case Qt::DisplayRole:
    case VersionRole:
        return build.version;
    case PathRole:
        return build.path;
    default:
        return {};
    }
}

QHash<int, QByteArray> InstalledBuildList::roleNames() const {
    return {{VersionRole, QByteArrayLiteral("version")}, {PathRole, QByteArrayLiteral("path")}};
}
