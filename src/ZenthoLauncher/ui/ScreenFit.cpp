#include "ui/ScreenFit.h"

#include <QEvent>
#include <QScreen>
#include <QVariant>
#include <QWindow>

#include <algorithm>

ScreenFit::ScreenFit(QWindow& window)
    : window_(window), designedHeight_(window.height()) {
    window_.installEventFilter(this);
    connect(&window_, &QWindow::screenChanged, this, [this](QScreen* screen) {
        follow(screen);
        fit();
    });
    follow(window_.screen());
}

bool ScreenFit::eventFilter(QObject* watched, QEvent* event) {
    if (watched == &window_ && event->type() == QEvent::Expose && window_.isExposed())
        fit();
    return QObject::eventFilter(watched, event);
}

void ScreenFit::follow(QScreen* screen) {
    disconnect(screenArea_);
    if (screen)
        screenArea_ = connect(screen, &QScreen::availableGeometryChanged, this, &ScreenFit::fit);
}

void ScreenFit::fit() {
    const QScreen* screen = window_.screen();
    if (!screen)
        return;
    const QRect area = screen->availableGeometry();
    const QMargins frame = window_.frameMargins();
    // Fitted once for this free area and frame, the window is left alone: exposures come often,
    // and where the player moves it afterwards is the player's choice.
    if (fittedArea_ == area && fittedFrame_ == frame)
        return;
    fittedArea_ = area;
    fittedFrame_ = frame;
    // The frame comes in logical pixels, rounded; at a fractional or doubled scale the real one
    // may be up to a device pixel taller than it says.
    const int rounding = window_.devicePixelRatio() > 1 ? 1 : 0;
    const int room = area.height() - frame.top() - frame.bottom() - rounding;
    const int shortest = window_.property("shortestHeight").toInt();
    const int height = std::max(shortest, std::min(designedHeight_, room));
    if (height != window_.height()) {
        window_.setMinimumHeight(height);
        window_.setMaximumHeight(height);
        window_.resize(window_.width(), height);
    }
    // Where the desktop put the frame across an edge of the free area, back inside it.
    const QRect framed(window_.framePosition(),
                       QSize(window_.width() + frame.left() + frame.right(),
                             height + frame.top() + frame.bottom() + rounding));
    QPoint inside = framed.topLeft();
    inside.setY(std::max(area.top(), std::min(framed.top(), area.bottom() + 1 - framed.height())));
    if (inside != framed.topLeft())
        window_.setFramePosition(inside);
}
