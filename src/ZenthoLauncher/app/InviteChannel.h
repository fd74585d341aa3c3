#pragma once

#include <QLocalServer>
#include <QObject>
#include <QString>

#include <functional>

class QLocalSocket;

// Keeps one launcher per user. The first launcher listens on a per-user local socket; a later
// start (typically the desktop opening an invite link) hands its link to that one and exits, so
// the invite reaches the window the player already has open.
//
// A link is handed over only when the running launcher answers that it took it. One that can no
// longer pass a link on (it has started the game with the link it had and is about to quit)
// refuses, and so does one that ends before it has read the link: the later start then stays and
// follows the link itself, so a link is never accepted and dropped.
class InviteChannel : public QObject {
    Q_OBJECT

public:
    enum class Role {
        Forwarded, // another launcher took the invite; this process should end
        Primary,   // this launcher now listens for later starts
        Unshared,  // neither: run alone (the address is held by a launcher that does not answer)
    };

    // The socket for the current user and the launcher storage at `launcherRoot`: in
    // $XDG_RUNTIME_DIR when the session has one, else in the system's default place for local
    // sockets. Launchers that keep their builds in different places share nothing, so each
    // storage gets its own socket; for a player that is one socket per user.
    static QString defaultAddress(const QString& launcherRoot);

    explicit InviteChannel(QString address, QObject* parent = nullptr);

    // Hands `invite` to a launcher that already listens on the address; an empty invite only
    // asks it to come to the front. True when a launcher took it; false when none listens, or the
    // one that does refused it or closed the connection without answering. A launcher that stays
    // connected without answering within `answerTimeoutMs` counts as having taken it: launchers
    // from before the answer existed take every link they read and never answer.
    bool forwardToRunningLauncher(const QString& invite, int timeoutMs = 3000,
                                  int answerTimeoutMs = 10000) const;
    // Asked for each link a later start hands over, as it arrives: false refuses it, and the
    // later start follows it itself. Without it every link is taken.
    void setAcceptsInvites(std::function<bool()> accepts) { accepts_ = std::move(accepts); }
    // Starts listening. A socket left behind by a launcher that died is removed first; an address
    // held by a live launcher is left alone and gives false.
    bool listen();
    // What a starting launcher does: forward to the running one, or become the one that listens.
    Role startOrForward(const QString& invite);

    bool isListening() const { return server_.isListening(); }
    QString address() const { return address_; }

signals:
    // A later start handed over an invite, which was taken; empty when it only asked to bring the
    // window forward.
    void inviteReceived(const QString& invite);

private:
    bool listenPrivately();
    void acceptConnections();
    void readMessage(QLocalSocket* socket);

    QString address_;
    QLocalServer server_;
    std::function<bool()> accepts_;
};
