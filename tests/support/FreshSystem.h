#pragma once

#include "FreshDebianBase.h"

#include <QByteArray>
#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <memory>
#include <vector>

// A fresh Debian system for one test: a working root over a cached FreshDebianBase, in which
// the test copies what it ships (the launcher bundle) and runs it as a player or as root, to
// prove it runs on a machine that is not the build machine.
//
// The root is an overlay (the cached base below, the changes in this object's temporary folder
// above) mounted in a private mount namespace held by one helper process, with /proc (the
// loader resolves $ORIGIN only with it), /sys, a minimal /dev, and fresh /tmp and /run. With a
// display, the host's /tmp/.X11-unix is bound in so windows reach the test's Xvfb. It shares
// the host's network: a TestServer on 127.0.0.1 is reachable from inside. A user "player"
// (uid 1000) with a home folder and a runtime folder exists from the start.
//
// Destroying the object, and also the death of the test process by any signal, kills every
// process in the namespace (a game that left the launcher's session too), which lets the
// namespace and all its mounts go; the object then removes the changes. The cached base is
// never written. Needs root. The constructor throws std::runtime_error with the reason when the
// base cannot be made or the root cannot be set up.
class FreshSystem {
public:
    enum class User { root, player };
    static constexpr int playerUid = 1000;

    struct Result {
        int exitCode = -1; // -1 when it crashed or did not end within 2 minutes (it is killed)
        QByteArray output; // standard output and error as they came
        bool succeeded() const { return exitCode == 0; }
    };

    // Makes or reuses the base for `suite` ("bookworm" or "trixie"), reporting its creation to
    // `progress`. `display` (":N") is the X display the root may reach, or empty.
    explicit FreshSystem(const QString& suite, const QString& display = {},
                         const FreshDebianBase::Progress& progress = {});
    explicit FreshSystem(const FreshDebianBase& base, const QString& display = {},
                         const FreshDebianBase::Progress& progress = {});
    ~FreshSystem();
    FreshSystem(const FreshSystem&) = delete;
    FreshSystem& operator=(const FreshSystem&) = delete;

    QString suite() const { return base_.suite(); }
    // The cached base below the root.
    QString baseRoot() const { return base_.root(); }
    // Where the path `inside` of the root is reached from the host, while this object lives.
    QString hostPath(const QString& inside) const;
    // The user's home folder inside the root.
    static QString home(User user);
    // The environment a command runs with: HOME, USER, the XDG folders, PATH, LANG, DISPLAY.
    QProcessEnvironment environment(User user) const;

    // Adds the CA in `pemFile` to the root's own store, with update-ca-certificates as an
    // administrator would: programs that trust the system's store then trust it.
    void trustCa(const QString& pemFile);
    // Copies `hostFolder` to the path `inside` of the root (its parents made), owned by `owner`.
    void copyIn(const QString& hostFolder, const QString& inside, User owner = User::player);

    // Runs `command` (its program as the root sees it) in the root as `user`, in the user's home,
    // with the user's environment and `environment` ("NAME=value") on top, `input` on its
    // standard input, and waits for it.
    Result run(const QStringList& command, User user = User::player,
               const QStringList& environment = {}, const QByteArray& input = {}) const;
    // Starts `command` the same way, with nothing on its standard input, and returns it at once;
    // it is ended with the root. Its processId() is the command's own (nothing forks on the way
    // in), so terminate() reaches the command itself.
    QProcess& start(const QStringList& command, User user = User::player,
                    const QStringList& environment = {});

    // The mount namespace the root lives in, as MountNamespace names it.
    QString mountNamespace() const { return namespace_; }
    // The pid of the process that holds the namespace open.
    qint64 holderPid() const { return holder_.processId(); }
    // Where the root is mounted, as seen inside the namespace.
    QString mountPoint() const;
    // This object's temporary folder: the overlay's changes and its mount point.
    QString workFolder() const { return work_.path(); }

private:
    void mountRoot();
    // The command line that runs `command` in the root as `user`.
    QStringList wrapped(const QStringList& command, User user) const;
    void prepare(QProcess& process, const QStringList& command, User user,
                 const QStringList& environment) const;
    void endEverythingInside();

    FreshDebianBase base_;
    QString display_;
    QTemporaryDir work_;
    QProcess holder_;
    QString namespace_;
    std::vector<std::unique_ptr<QProcess>> started_;
};
