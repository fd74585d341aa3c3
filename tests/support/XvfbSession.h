#pragma once

#include <QImage>
#include <QPoint>
#include <QProcess>
#include <QRect>
#include <QSize>
#include <QString>

#include <optional>

// A private X server (Xvfb on a display it picks itself) for driving a real launcher window as a
// player would and seeing it as a desktop does: find the window, read its properties, click into
// it through the XTEST extension. Only used by tests of the real binary; stopped when the object
// goes.
class XvfbSession {
public:
    // A screen of 1024x768 pixels, or of `size`.
    XvfbSession();
    explicit XvfbSession(QSize size);
    ~XvfbSession();
    XvfbSession(const XvfbSession&) = delete;
    XvfbSession& operator=(const XvfbSession&) = delete;

    // ":N", or empty when the server did not start.
    QString display() const { return display_; }

    // Where the top-level window titled `title` that has a WM_CLASS lies on the screen, once it
    // is mapped; none when it did not appear within `timeoutMs`. A launcher on a loaded machine
    // can take over 20 s to show its window, hence the long default.
    std::optional<QRect> waitForWindow(const QString& title, int timeoutMs = 90000) const;
    // The X id of that window once it is mapped; none when it did not appear within `timeoutMs`.
    std::optional<QString> waitForWindowId(const QString& title, int timeoutMs = 90000) const;
    // Names the root window where a window's X id is asked for.
    static const QString kRootWindow;

    // One property of the window with X id `window` as xprop prints it without its type
    // ("WM_CLASS = \"a\", \"b\""); `format` is xprop's -f format for it, when given.
    QString windowProperty(const QString& window, const QString& property,
                           const QString& format = {}) const;
    // What the X server holds of the window with X id `window` (or the root window, kRootWindow),
    // read as the server has it; null when it cannot be read (no such window, not viewable, a
    // visual other than 24-bit true colour).
    QImage windowImage(const QString& window) const;
    // A left click at `point` in screen pixels. False when the display or XTEST is unavailable.
    bool click(QPoint point) const;
    // Asks the window with X id `window` to close, as a window manager does for its close
    // button (WM_DELETE_WINDOW). False when the display is unavailable.
    bool askToClose(const QString& window) const;

private:
    // The first match of `title`'s window line in the tree of windows: its id, size and position.
    struct Found {
        QString id;
        QRect rect;
    };
    std::optional<Found> waitForMatch(const QString& title, int timeoutMs) const;

    QProcess server_;
    QString display_;
};
