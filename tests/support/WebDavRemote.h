#pragma once

#include <QProcess>
#include <QString>

// A real WebDAV server, `rclone serve webdav`, over `folder` on 127.0.0.1, and an rclone remote
// named remoteName() that reaches it. The remote is configured through rclone's own environment
// variables, set for this process and so for every rclone it starts. The server goes with the
// object, or with the test process when that dies first. The constructor throws
// std::runtime_error when the server does not start.
class WebDavRemote {
public:
    explicit WebDavRemote(const QString& folder);
    ~WebDavRemote();
    WebDavRemote(const WebDavRemote&) = delete;
    WebDavRemote& operator=(const WebDavRemote&) = delete;

    // "zentho_webdav:": the root of the served folder, as zentho-release --to-remote takes it.
    static QString remoteName();
    // Stops the server, so the remote answers nothing.
    void stop();

private:
    QProcess server_;
};
