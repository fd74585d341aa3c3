#pragma once

#include <QString>
#include <QStringList>

#include <optional>

class FileManager;

// What makes the desktop know a launcher bundle, all of it in the player's own XDG folders: the
// desktop entry zentho-launcher.desktop (its menu item, which also opens zentho: links), its
// icon, its AppStream data for software centres, and the entry as the player's handler of
// zentho: links in mimeapps.list, every other choice in that file kept.
class DesktopIntegration {
public:
    // The player's folders: $XDG_DATA_HOME (else ~/.local/share) and $XDG_CONFIG_HOME (else
    // ~/.config), each taken only when absolute.
    struct Folders {
        QString dataHome;
        QString configHome;
    };
    static Folders playerFolders(const FileManager& files);

    DesktopIntegration(const FileManager& files, Folders folders);

    // What a start of the launcher at `executable` (its bundle's Contents/MacOS/ZenthoLauncher)
    // does about it.
    enum class Need {
        nothing,   // the entry names this launcher, or another one that is still there
        integrate, // there is no entry
        repoint,   // the entry names a launcher that is gone: this bundle was moved
    };
    Need needFor(const QString& executable) const;

    // Writes the entry, icon, AppStream data and link handler for the launcher at `executable`,
    // replacing what an earlier integration wrote. Throws FileError when a file cannot be written.
    void integrate(const QString& executable) const;

    // Removes what integrate() writes (the handler leaves mimeapps.list, which goes when nothing
    // else is left in it, and folders it leaves empty go). Returns the files it removed or changed.
    QStringList remove() const;

    QString entryPath() const;
    QString iconPath() const;
    QString metainfoPath() const;
    QString mimeappsPath() const;

    // The desktop entry's Exec value for `executable`: the path as it stands when nothing in it
    // needs quoting (the generic mode of xdg-open in xdg-utils 1.1.3 cannot run a quoted one),
    // else a quoted argument as the desktop-entry rules write one.
    static QString execValue(const QString& executable);

private:
    // The launcher the entry starts, from its TryExec line; nothing when there is no entry.
    std::optional<QString> integratedExecutable() const;

    const FileManager& files_;
    Folders folders_;
};
