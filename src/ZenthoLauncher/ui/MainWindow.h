#pragma once

#include <QQmlEngine>

#include <memory>

class LauncherModel;
class QQuickWindow;

// The launcher's window, loaded from the QML compiled into the core and bound to one model. It
// comes up hidden; showing it brings it to the front.
class MainWindow {
public:
    // Where the window's QML lives in the resources.
    static const char* const kSource;

    // Throws std::runtime_error with the QML engine's messages when the window cannot be built.
    explicit MainWindow(LauncherModel& model);
    ~MainWindow();
    MainWindow(const MainWindow&) = delete;
    MainWindow& operator=(const MainWindow&) = delete;

    QQuickWindow* window() const { return window_.get(); }
    QQmlEngine& engine() { return engine_; }

    void show();
    // Raises the window and asks for keyboard focus, taking it from other applications.
    void bringToFront();

private:
    QQmlEngine engine_;
    std::unique_ptr<QQuickWindow> window_;
};
