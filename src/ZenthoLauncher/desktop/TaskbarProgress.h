#pragma once

#include <QString>

#include <optional>

// The running download's progress on the launcher's entry in the desktop's taskbar or dock,
// told through the com.canonical.Unity.LauncherEntry "Update" signal on the session bus, which
// KDE Plasma's task manager and the common GNOME docks read. Without a session bus nothing is
// shown and nothing fails.
class TaskbarProgress {
public:
    // `desktopEntry` is the installed desktop entry's file name, "zentho-launcher.desktop".
    explicit TaskbarProgress(QString desktopEntry);

    // Shows `fraction` (0 to 1); a negative value takes the progress off the entry.
    void show(double fraction);

    // The signal's object path: any path will do, the entry is named in the signal itself.
    static QString objectPath() { return QStringLiteral("/com/zentho/launcher"); }

private:
    QString appUri_;
    // What the entry shows now: none when no progress is shown.
    std::optional<double> shown_;
};
