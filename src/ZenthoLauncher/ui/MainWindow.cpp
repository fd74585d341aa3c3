#include "ui/MainWindow.h"

#include "errors/Failure.h"
#include "model/LauncherModel.h"

#include <QIcon>
#include <QMetaObject>
#include <QQmlComponent>
#include <QQuickStyle>
#include <QQuickWindow>
#include <QStringList>


const char* const MainWindow::kSource = "qrc:/ZenthoLauncher/Main.qml";
const char* const MainWindow::kIcon = ":/ZenthoLauncher/zentho-launcher.png";

MainWindow::MainWindow(LauncherModel& model, Platform& platform) : clipboard_(platform) {
    // The window's colours are its own; the Basic style is the one that draws controls with the
    // colours it is given instead of the desktop's theme. It must be chosen before any control is
    // loaded.
    QQuickStyle::setStyle(QStringLiteral("Basic"));

    QQmlComponent component(&engine_, QUrl(QString::fromLatin1(kSource)));
    // Qt 6.4 crashes when a component that did not load is asked to create its object: one whose
    // imports cannot be found (a QML module missing from the bundle) is refused here instead.
    std::unique_ptr<QObject> root;
    if (component.isReady())
        root.reset(component.createWithInitialProperties(
            {{QStringLiteral("launcher"), QVariant::fromValue(static_cast<QObject*>(&model))},
             {QStringLiteral("clipboard"), QVariant::fromValue(static_cast<QObject*>(&clipboard_))}}));
    auto* window = qobject_cast<QQuickWindow*>(root.get());
    if (!window) {
        QStringList messages;
        for (const QQmlError& error : component.errors())
            messages.append(error.toString());
        if (messages.isEmpty())
            messages.append(QStringLiteral("%1 does not describe a window").arg(kSource));
        throw Failure(messages.join(QLatin1Char('\n')).toStdString());
    }
    root.release();
    window_.reset(window);
    // Without it a desktop that cannot tie the window to the desktop entry shows a generic icon.
    window_->setIcon(QIcon(QString::fromLatin1(kIcon)));
    screenFit_ = std::make_unique<ScreenFit>(*window_);
}

MainWindow::~MainWindow() = default;

void MainWindow::show() {
    window_->show();
}

void MainWindow::bringToFront() {
    QMetaObject::invokeMethod(window_.get(), "bringToFront");
}
