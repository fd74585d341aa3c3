#include "WebDavRemote.h"

#include "TestServer.h"

#include <QDeadlineTimer>
#include <QHostAddress>
#include <QStandardPaths>
#include <QTcpSocket>

#include <stdexcept>

#include <signal.h>
#include <sys/prctl.h>

namespace {

bool accepts(quint16 port) {
    QTcpSocket socket;
    socket.connectToHost(QHostAddress::LocalHost, port);
    return socket.waitForConnected(200);
}

} // namespace

WebDavRemote::WebDavRemote(const QString& folder) {
    const QString rclone = QStandardPaths::findExecutable(QStringLiteral("rclone"));
    if (rclone.isEmpty())
        throw std::runtime_error("rclone is not installed");
    const quint16 port = TestServer::unusedLocalPort();
    const QString address = QStringLiteral("127.0.0.1:") + QString::number(port);
    qputenv("RCLONE_CONFIG_ZENTHO_WEBDAV_TYPE", "webdav");
    qputenv("RCLONE_CONFIG_ZENTHO_WEBDAV_URL", ("http://" + address + "/").toUtf8());
    server_.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    server_.setChildProcessModifier([] { ::prctl(PR_SET_PDEATHSIG, SIGKILL); });
    server_.start(rclone, {QStringLiteral("serve"), QStringLiteral("webdav"), folder, QStringLiteral("--addr"), address});
    if (!server_.waitForStarted(60000))
        throw std::runtime_error("rclone serve webdav did not start: " + server_.errorString().toStdString());
    const QDeadlineTimer deadline(60000);
    while (!deadline.hasExpired()) {
        if (server_.state() == QProcess::NotRunning || server_.waitForFinished(50))
            throw std::runtime_error("rclone serve webdav ended at once");
        if (accepts(port))
            return;
    }
    server_.kill();
    server_.waitForFinished(5000);
    throw std::runtime_error("rclone serve webdav did not listen within a minute");
}

WebDavRemote::~WebDavRemote() {
    stop();
}

QString WebDavRemote::remoteName() {
    return QStringLiteral("zentho_webdav:");
}

void WebDavRemote::stop() {
    if (server_.state() == QProcess::NotRunning)
        return;
    server_.terminate();
    if (!server_.waitForFinished(5000)) {
        server_.kill();
        server_.waitForFinished(5000);
    }
}
