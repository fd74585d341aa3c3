#pragma once

#include "desktop/TaskbarProgress.h"
#include "platform/Platform.h"

// The bundle is found from the running executable (/proc/self/exe): an executable at
// X.app/Contents/MacOS/<name> runs from the bundle X.app.
class LinuxPlatform : public Platform {
public:
    // `executablePath` stands for /proc/self/exe; empty means read it from there.
    explicit LinuxPlatform(QString executablePath = {}, QStringList arguments = {});

    std::optional<QString> bundleResourceFolder() const override;
    QString bundlePath() const override;
    QString executablePath() const override { return executable_; }
    QStringList commandLineArguments() const override;
    qint64 processIdentifier() const override;
    void quit() override;
    void setClipboardText(const QString& text) override;
    void showTaskbarProgress(double fraction) override { taskbar_.show(fraction); }

private:
    std::optional<QString> bundleFolder() const;

    QString executable_;
    QStringList arguments_;
    // Named after the desktop entry the installation writes.
    TaskbarProgress taskbar_{QStringLiteral("zentho-launcher.desktop")};
};
