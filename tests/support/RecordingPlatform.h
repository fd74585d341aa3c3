#pragma once

#include "desktop/LinuxPlatform.h"

// The real Linux platform, except that quitting and clipboard writes are recorded instead of
// performed, so a test can see them and keep running.
class RecordingPlatform : public LinuxPlatform {
public:
    using LinuxPlatform::LinuxPlatform;

    void quit() override { ++quitCount; }
    void setClipboardText(const QString& text) override { clipboardWrites.append(text); }
    // Recorded, and also told to the desktop as the real platform does.
    void showTaskbarProgress(double fraction) override {
        taskbarProgress.append(fraction);
        LinuxPlatform::showTaskbarProgress(fraction);
    }

    int quitCount = 0;
    QStringList clipboardWrites;
    QList<double> taskbarProgress;
};
