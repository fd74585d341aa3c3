#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <optional>

// The file-system services the launcher uses, with Foundation-like semantics on POSIX. Paths are
// absolute file-system paths. Operations that can fail throw FileError.
class FileManager {
public:
    // The one process-wide instance.
    static FileManager& defaultManager();

    // The user's per-user data folders (the application-support area): $XDG_DATA_HOME when it is
    // an absolute path, else $HOME/.local/share when $HOME is an absolute path, else none.
    QStringList applicationSupportFolders() const;
    // The current user's home folder from the account database, whatever $HOME says.
    QString homeFolderForCurrentUser() const;
    // The system's temporary folder by the one rule of TemporaryFolder.h.
    QString temporaryDirectory() const;

    bool fileExists(const QString& path) const; // anything at the path, following links
    bool isExecutableFile(const QString& path) const; // access(X_OK) and not a directory
    bool isWritableFile(const QString& path) const;   // access(W_OK)
    // Entries of a folder with their is-directory property (absent when it could not be read),
    // hidden names (leading ".") skipped. Throws when the folder cannot be listed.
    struct Entry {
        QString name;
        std::optional<bool> isDirectory;
    };
    QList<Entry> contentsOfDirectory(const QString& path) const;

    // Creates the folder and every missing parent; an existing folder is fine.
    void createDirectory(const QString& path) const;
    void setPosixPermissions(const QString& path, unsigned int mode) const;
    // Renames; fails when anything already exists at `to`.
    void moveItem(const QString& from, const QString& to) const;
    // Swaps `a` and `b`, both of which must exist, in one step: nobody ever sees either path
    // missing or half of one.
    void exchangeItems(const QString& a, const QString& b) const;
    // Renames `with` over `original`, which must exist.
    void replaceItem(const QString& original, const QString& with) const;
    // Removes a file, link or whole folder tree (links are removed, never followed), also when
    // folders inside it forbid writing.
    void removeItem(const QString& path) const;

    // Checks made on what an archive unpacked, so nothing it holds can lead outside `folder`:
    // the real path of `path`, when every link on the way resolves to a regular file strictly
    // inside `folder`, else nothing (a folder, a FIFO, a device, a link leading out, nothing).
    std::optional<QString> regularFileInside(const QString& folder, const QString& path) const;
    // True when `path` itself is a folder (not a link to one) whose real path lies strictly
    // inside `folder`.
    bool isRealFolderInside(const QString& folder, const QString& path) const;

    QByteArray readFile(const QString& path) const;
    // Writes through a temporary sibling that is flushed to disk and renamed over `path`, then
    // flushes the folder, so a power cut leaves either the old or the new file, never a mix.
    void writeAtomically(const QString& path, const QByteArray& bytes) const;

private:
    // The real path of `path` when it exists and lies strictly inside the real path of `folder`.
    std::optional<QString> resolvedInside(const QString& folder, const QString& path) const;
};
