#pragma once

#include <QPoint>
#include <QProcess>
#include <QRect>
#include <QString>

#include <optional>

// A private X server (Xvfb on a display it picks itself) for driving a real launcher window as a
// player would: find the window, click into it through the XTEST extension. Only used by tests
// that must press a button of the real binary; stopped when the object goes.
class XvfbSession {
public:
    XvfbSession();
    ~XvfbSession();
    XvfbSession(const XvfbSession&) = delete;
    XvfbSession& operator=(const XvfbSession&) = delete;

    // ":N", or empty when the server did not start.
    QString display() const { return display_; }

    // Where the top-level window titled `title` that has a WM_CLASS lies on the screen, once it
    // is mapped; none when it did not appear within `timeoutMs`.
    std::optional<QRect> waitForWindow(const QString& title, int timeoutMs = 20000) const;
    // A left click at `point` in screen pixels. False when the display or XTEST is unavailable.
    bool click(QPoint point) const;

private:
    QProcess server_;
    QString display_;
};
