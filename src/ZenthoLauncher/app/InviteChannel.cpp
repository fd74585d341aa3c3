#include "app/InviteChannel.h"

#include <QCryptographicHash>
#include <QDataStream>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLocalSocket>

#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr QDataStream::Version kStreamVersion = QDataStream::Qt_6_4;
// How long a probe waits for a live launcher before the address counts as abandoned.
constexpr int kProbeTimeoutMs = 1000;
// Far more than any link; a peer that sends more is not a launcher.
constexpr qint64 kMaxMessage = 1 << 20;
// The one byte a launcher answers each link with.
constexpr char kTaken = '1';
constexpr char kRefused = '0';

bool connectTo(QLocalSocket& socket, const QString& address, int timeoutMs) {
    socket.connectToServer(address);
    return socket.waitForConnected(timeoutMs);
}

} // namespace

QString InviteChannel::defaultAddress(const QString& launcherRoot) {
    // A short digest keeps the name well inside the length limit of a socket path.
    const QByteArray storage =
        QCryptographicHash::hash(QFile::encodeName(launcherRoot), QCryptographicHash::Sha256)
            .toHex()
            .left(12);
    const QString name =
        QStringLiteral("zentho-launcher-%1-%2").arg(::getuid()).arg(QString::fromLatin1(storage));
    const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (!runtime.isEmpty() && QFileInfo(runtime).isDir())
        return QDir(runtime).filePath(name);
    return name;
}

InviteChannel::InviteChannel(QString address, QObject* parent)
    : QObject(parent), address_(std::move(address)) {
    connect(&server_, &QLocalServer::newConnection, this, &InviteChannel::acceptConnections);
}

bool InviteChannel::forwardToRunningLauncher(const QString& invite, int timeoutMs,
                                             int answerTimeoutMs) const {
    QLocalSocket socket;
    if (!connectTo(socket, address_, timeoutMs))
        return false;
    QByteArray message;
    QDataStream out(&message, QIODevice::WriteOnly);
    out.setVersion(kStreamVersion);
    out << invite;
    socket.write(message);
    while (socket.bytesToWrite() > 0) {
        if (!socket.waitForBytesWritten(timeoutMs))
            return false;
    }
    // Bytes in the socket are not yet a link taken: the receiver may be quitting, or past the
    // point where it could pass a link on. Its answer says.
    bool taken = false;
    if (socket.waitForReadyRead(answerTimeoutMs)) {
        char answer = 0;
        taken = socket.getChar(&answer) && answer == kTaken;
    } else {
        taken = socket.error() == QLocalSocket::SocketTimeoutError &&
                socket.state() == QLocalSocket::ConnectedState;
    }
    socket.disconnectFromServer();
    if (socket.state() != QLocalSocket::UnconnectedState)
        socket.waitForDisconnected(timeoutMs);
    return taken;
}

bool InviteChannel::listenPrivately() {
    // Outside a private runtime folder the socket sits in a shared one: only this user may
    // connect, so nobody else can push links into the player's game. Qt's access options would
    // create the socket elsewhere and rename it into place, replacing a live launcher's socket;
    // a tight umask keeps the plain bind, which refuses an address that is taken. Start-up runs
    // this before any other thread could create files.
    const mode_t previous = ::umask(077);
    const bool listening = server_.listen(address_);
    ::umask(previous);
    return listening;
}

bool InviteChannel::listen() {
    if (server_.isListening())
        return true;
    if (listenPrivately())
        return true;
    if (server_.serverError() != QAbstractSocket::AddressInUseError)
        return false;
    QLocalSocket probe;
    if (connectTo(probe, address_, kProbeTimeoutMs))
        return false;
    // Nobody answers: a launcher that crashed left its socket file behind.
    QLocalServer::removeServer(address_);
    return listenPrivately();
}

InviteChannel::Role InviteChannel::startOrForward(const QString& invite) {
    if (forwardToRunningLauncher(invite))
        return Role::Forwarded;
    if (listen())
        return Role::Primary;
    // Another launcher started at the same moment and won the address: hand the invite to it.
    if (forwardToRunningLauncher(invite))
        return Role::Forwarded;
    return Role::Unshared;
}

void InviteChannel::acceptConnections() {
    while (QLocalSocket* socket = server_.nextPendingConnection()) {
        connect(socket, &QLocalSocket::readyRead, this, [this, socket] { readMessage(socket); });
        connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
        // The message may have arrived before the socket was handed over.
        readMessage(socket);
    }
}

void InviteChannel::readMessage(QLocalSocket* socket) {
    QDataStream in(socket);
    in.setVersion(kStreamVersion);
    for (;;) {
        in.startTransaction();
        QString invite;
        in >> invite;
        if (!in.commitTransaction()) {
            // An incomplete message waits for the rest; anything that cannot be a link is dropped.
            if (in.status() == QDataStream::ReadCorruptData || socket->bytesAvailable() > kMaxMessage)
                socket->abort();
            return;
        }
        // Decided and delivered in one go, so nothing can change the launcher's mind in between.
        const bool taken = !accepts_ || accepts_();
        socket->putChar(taken ? kTaken : kRefused);
        socket->flush();
        if (taken)
            emit inviteReceived(invite);
    }
}
