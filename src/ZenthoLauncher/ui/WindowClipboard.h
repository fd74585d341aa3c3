#pragma once

#include <QObject>
#include <QString>

class Platform;

// The clipboard as the window's QML sees it: what the status line's "Copy" writes goes to the
// platform's clipboard, the same one the data-folder link uses.
class WindowClipboard : public QObject {
    Q_OBJECT

public:
    explicit WindowClipboard(Platform& platform, QObject* parent = nullptr);

    // Replaces the clipboard's content with `text`, exactly as given.
    Q_INVOKABLE void setText(const QString& text);

private:
    Platform& platform_;
};
