#include "desktop/LinuxPlatform.h"

#include <QClipboard>
#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QGuiApplication>
#include <QMetaObject>

#include <unistd.h>

LinuxPlatform::LinuxPlatform(QString executablePath, QStringList arguments)
    : executable_(std::move(executablePath)), arguments_(std::move(arguments)) {
    if (executable_.isEmpty())
        executable_ = QFileInfo(QStringLiteral("/proc/self/exe")).canonicalFilePath();
    if (arguments_.isEmpty() && QCoreApplication::instance())
        arguments_ = QCoreApplication::arguments();
}

std::optional<QString> LinuxPlatform::bundleFolder() const {
    // Plain path arithmetic: the bundle is recognised by its shape, whether or not it exists.
    const QFileInfo macos(QFileInfo(executable_).absolutePath());
    const QFileInfo contents(macos.path());
    const QFileInfo bundle(contents.path());
    if (macos.fileName() != QLatin1String("MacOS") ||
        contents.fileName() != QLatin1String("Contents") ||
        !bundle.fileName().endsWith(QLatin1String(".app")))
        return std::nullopt;
    return bundle.filePath();
}

std::optional<QString> LinuxPlatform::bundleResourceFolder() const {
    if (const auto bundle = bundleFolder())
        return *bundle + QStringLiteral("/Contents/Resources");
    return std::nullopt;
}

QString LinuxPlatform::bundlePath() const {
    if (const auto bundle = bundleFolder())
        return *bundle;
    return QFileInfo(executable_).absolutePath();
}

QStringList LinuxPlatform::commandLineArguments() const {
    return arguments_;
}

qint64 LinuxPlatform::processIdentifier() const {
    return static_cast<qint64>(::getpid());
}

void LinuxPlatform::quit() {
    if (auto* app = QCoreApplication::instance())
        QMetaObject::invokeMethod(app, &QCoreApplication::quit, Qt::QueuedConnection);
}

void LinuxPlatform::setClipboardText(const QString& text) {
    if (auto* app = qobject_cast<QGuiApplication*>(QCoreApplication::instance())) {
        QClipboard* clipboard = app->clipboard();
        clipboard->clear(QClipboard::Clipboard);
        clipboard->setText(text, QClipboard::Clipboard);
    }
}
