#pragma once

#include "storage/InstalledBuild.h"

#include <QAbstractListModel>
#include <QList>

// The saved builds as the window's picker reads them: one row per build, newest first, with the
// roles "version" and "path". A view asks only for the rows it shows, so a thousand saved builds
// cost the window no more at start-up than a handful.
class InstalledBuildList : public QAbstractListModel {
    Q_OBJECT
    Q_PROPERTY(int count READ count NOTIFY countChanged)

public:
    enum Role {
        VersionRole = Qt::UserRole + 1,
        PathRole,
    };

    explicit InstalledBuildList(QObject* parent = nullptr);

    const QList<InstalledBuild>& builds() const { return builds_; }
    // Replaces every row; views re-read the list once.
    void setBuilds(QList<InstalledBuild> builds);

    int count() const { return static_cast<int>(builds_.size()); }
    int rowCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role = Qt::DisplayRole) const override;
    QHash<int, QByteArray> roleNames() const override;

signals:
    void countChanged();

private:
    QList<InstalledBuild> builds_;
};
