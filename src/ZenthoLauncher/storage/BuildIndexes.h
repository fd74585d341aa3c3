#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QUrl>

#include <optional>

// The "indexes" folder under the storage root: for each saved build that came from a release
// with chunks, that release's chunk index, so a later update can find the chunks the build
// already holds without reading all of it. Kept beside the builds, never inside one: a build
// folder holds exactly what its release holds. An index here is only a hint about what a build
// holds; whatever uses it checks the bytes it reads.
class BuildIndexes {
public:
    explicit BuildIndexes(QString launcherRoot);

    // The index kept for the build in `buildFolder`, if any.
    std::optional<QByteArray> read(const QString& buildFolder) const;
    // Keeps `index` for the build in `buildFolder`, replacing any earlier one, and forgets the
    // indexes of builds that are no longer on disk. False when it could not be written; an update
    // then reads the build itself.
    bool write(const QString& buildFolder, const QByteArray& index) const;

    // The chunk store the build's release was published with, and its pack when it had one, kept
    // beside its index, so that a damaged build can fetch the chunks it lost; false when it could
    // not be written.
    bool writeStore(const QString& buildFolder, const QUrl& store, const QUrl& pack = QUrl()) const;
    std::optional<QUrl> readStore(const QString& buildFolder) const;
    std::optional<QUrl> readPack(const QString& buildFolder) const;

private:
    QString fileFor(const QString& buildFolder, const QString& suffix = QStringLiteral(".json")) const;
    std::optional<QByteArray> readKept(const QString& path, const QString& buildFolder) const;
    // The address on line `line` (0: the store, 1: the pack) of the build's kept sources.
    std::optional<QUrl> readSource(const QString& buildFolder, int line) const;

    QString path_;
};
