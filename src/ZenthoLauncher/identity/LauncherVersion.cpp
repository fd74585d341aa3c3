#include "identity/LauncherVersion.h"

#ifndef ZENTHO_LAUNCHER_VERSION
#error "ZENTHO_LAUNCHER_VERSION must be defined by the build"
#endif

QString launcherVersion() {
    return QStringLiteral(ZENTHO_LAUNCHER_VERSION);
}
