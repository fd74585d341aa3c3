#pragma once

#include <QString>
#include <QStringList>

#include <optional>

// The services of the desktop the launcher runs on that are not plain file operations: where the
// running application bundle is, the process's identity, quitting, the clipboard, bringing the
// window forward and a download's progress on the taskbar. One real implementation per platform;
// tests subclass it to observe a quit or a clipboard write instead of performing it.
class Platform {
public:
    virtual ~Platform() = default;

    // The running bundle's Contents/Resources folder, or none when the launcher does not run
    // from inside an application bundle.
    virtual std::optional<QString> bundleResourceFolder() const = 0;
    // The running application's bundle folder (X.app). Outside a bundle, the folder that holds
    // the executable.
    virtual QString bundlePath() const = 0;
    // The running launcher's own executable file.
    virtual QString executablePath() const = 0;
    // The process's command line as given, the program name first.
    virtual QStringList commandLineArguments() const = 0;
    virtual qint64 processIdentifier() const = 0;

    // Ends the application once the current event has been handled, so the last status set
    // before it still reaches the screen.
    virtual void quit() = 0;
    // Replaces the clipboard's content with plain text.
    virtual void setClipboardText(const QString& text) = 0;
    // Shows `fraction` (0 to 1) of a running download on the launcher's taskbar or dock entry; a
    // negative value takes it off. Without a desktop that listens, nothing happens.
    virtual void showTaskbarProgress(double fraction) = 0;
};
