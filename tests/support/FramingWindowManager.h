#pragma once

#include <QProcess>
#include <QTemporaryDir>

class XvfbSession;

// A window manager (openbox, in its stock setup) on a private X server, so windows get the frame
// and title bar a player's desktop draws around them, and the desktop's free area is published
// as a player's desktop publishes it. Stopped when the object goes.
class FramingWindowManager {
public:
    explicit FramingWindowManager(const XvfbSession& screen);
    ~FramingWindowManager();
    FramingWindowManager(const FramingWindowManager&) = delete;
    FramingWindowManager& operator=(const FramingWindowManager&) = delete;

    // Whether it manages the screen: it has announced itself on the root window.
    bool managing() const { return managing_; }

private:
    // Its own home, so nothing it keeps is written into the user's.
    QTemporaryDir home_;
    QProcess process_;
    bool managing_ = false;
};
