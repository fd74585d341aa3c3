#include "ui/WindowClipboard.h"

#include "platform/Platform.h"

WindowClipboard::WindowClipboard(Platform& platform, QObject* parent)
    : QObject(parent), platform_(platform) {}

void WindowClipboard::setText(const QString& text) {
    platform_.setClipboardText(text);
}
