#pragma once

#include <QString>

class XvfbSession;

// How a desktop recognises the launcher's window: by its class, which the desktop entry names
// (StartupWMClass), and by the icon the window itself carries.
namespace WindowIdentity {

// StartupWMClass of the desktop entry the install writes (from the source tree's template).
QString entryWindowClass();

// The class part of the window's WM_CLASS (the second string), or empty.
QString windowClass(const XvfbSession& screen, const QString& window);

// True when the window's _NET_WM_ICON holds the launcher's icon (data/zentho-launcher.png)
// pixel for pixel; `why` says what differs when it does not.
bool carriesTheLauncherIcon(const XvfbSession& screen, const QString& window, QString* why = nullptr);

} // namespace WindowIdentity
