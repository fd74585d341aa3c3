#pragma once

#include <QString>

class FileManager;

// The "downloads" folder under the storage root, where a release archive stays while it
// downloads, so that a download cut short by a lost connection, a closed window or a crash goes
// on from where it stopped. Each kind of release ("macos-arm64" for the game,
// "macos-launcher-arm64" for the launcher) has at most one download there, named after the digest
// its manifest promises: KIND-DIGEST.part, and beside it, while the download can still be
// resumed, KIND-DIGEST.validator with the server's validator for it.
class DownloadsFolder {
public:
    struct Partial {
        QString archive;
        QString validator;
    };

    DownloadsFolder(const FileManager& files, QString launcherRoot);

    QString path() const { return path_; }

    // The files of `kind`'s download of the archive whose digest is `sha256`. Creates the folder
    // and removes every other download of `kind`: a release that is no longer wanted.
    Partial prepare(const QString& kind, const QString& sha256) const;

    // Removes what no download can go on from: names the launcher does not make, an archive
    // without its validator (finished, or one whose server gave none) and a validator without
    // its archive. Only for a caller that holds the StorageLock: then no download is running.
    void removeStale() const;

    // Removes the folder itself when nothing is left in it.
    void removeIfEmpty() const;

    // KIND-DIGEST: the digest as the lower-case hex text the manifest gives, or, when the manifest
    // gives something else (which can never match), the digest of that text, so that a name is
    // always 64 plain hex digits and never a path.
    static QString baseName(const QString& kind, const QString& sha256);

private:
    void remove(const QString& name) const;

    const FileManager& files_;
    QString path_;
};
