#pragma once

#include "ui/ScreenFit.h"
#include "ui/WindowClipboard.h"

#include <QQmlEngine>

#include <memory>

class LauncherModel;
class Platform;
class QQuickWindow;

// The launcher's window, loaded from the QML compiled into the core and bound to one model; its
// "Copy" commands write to the platform's clipboard. It comes up hidden; showing it brings it to
// the front.
class MainWindow {
public:
    // Where the window's QML lives in the resources.
    static const char* const kSource;
    // The window's icon in the resources: the picture the desktop entry's icon shows.
    static const char* const kIcon;

    // Throws Failure with the QML engine's messages when the window cannot be built.
    MainWindow(LauncherModel& model, Platform& platform);
    ~MainWindow();
    MainWindow(const MainWindow&) = delete;
    MainWindow& operator=(const MainWindow&) = delete;

    QQuickWindow* window() const { return window_.get(); }
    QQmlEngine& engine() { return engine_; }

    void show();
    // Raises the window and asks for keyboard focus, taking it from other applications.
    void bringToFront();

private:
    WindowClipboard clipboard_;
    QQmlEngine engine_;
    std::unique_ptr<QQuickWindow> window_;
    std::unique_ptr<ScreenFit> screenFit_;
};
