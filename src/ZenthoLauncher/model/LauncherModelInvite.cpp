#include "model/LauncherModel.h"

// An invite arrives as a link opened by the desktop. It is kept verbatim for the game, which
// alone knows how to read it, and starts the same flow as the main button. While a flow already
// runs, that flow simply picks up the new invite when it starts the game.
void LauncherModel::openInviteURL(const QString& url) {
    pendingInvite_ = url;
    setStatus(QStringLiteral("Joining a friend's game..."));
    updateAndPlay();
}
