#pragma once

#include <QString>

// The status lines of the main command, as the flow tests compare them: spelled once, so a test
// cannot drift from another by a letter.
namespace FlowStatuses {

inline const QString kChecking = QStringLiteral("Checking launcher version...");
inline const QString kLauncherUnavailable = QStringLiteral("Launcher update unavailable; checking game...");
inline const QString kCheckingGame = QStringLiteral("Checking for updates...");
inline const QString kDownloading = QStringLiteral("Downloading into ZENTHO storage...");
inline const QString kInstalling = QStringLiteral("Installing verified update...");
inline const QString kStarting = QStringLiteral("Starting ZENTHO...");
inline const QString kFallback = QStringLiteral("Update unavailable; starting installed version...");
inline const QString kJoining = QStringLiteral("Joining a friend's game...");

} // namespace FlowStatuses
