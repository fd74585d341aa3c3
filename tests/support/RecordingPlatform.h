#pragma once

#include "platform/LinuxPlatform.h"

// The real Linux platform, except that quitting and clipboard writes are recorded instead of
// performed, so a test can see them and keep running.
class RecordingPlatform : public LinuxPlatform {
public:
    using LinuxPlatform::LinuxPlatform;

    void quit() override { ++quitCount; }
    void setClipboardText(const QString& text) override { clipboardWrites.append(text); }

    int quitCount = 0;
    QStringList clipboardWrites;
};
