#pragma once

#include <QMargins>
#include <QObject>
#include <QRect>

class QScreen;
class QWindow;

// Keeps a window of fixed size, with the frame the desktop draws around it, inside its screen's
// available area. A screen with room keeps the window at its designed height; a shorter one (a
// 1024-pixel screen at twice the scale, say) gets a shorter window, down to the window's
// "shortestHeight" property, at which its content still shows in full. Only the height gives
// way: every control stays the size it was designed at.
class ScreenFit : public QObject {
    Q_OBJECT

public:
    explicit ScreenFit(QWindow& window);

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    // The frame is known only once the desktop has framed the window, so this runs again each
    // time the window is exposed and whenever its screen or the screen's free area changes.
    void fit();
    void follow(QScreen* screen);

    QWindow& window_;
    // The height the window was designed at, which it never grows beyond.
    const int designedHeight_;
    QMetaObject::Connection screenArea_;
    // The screen's free area and the frame the window was last fitted to.
    QRect fittedArea_;
    QMargins fittedFrame_;
};
