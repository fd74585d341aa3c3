#pragma once

#include <QString>

#include <cstdio>

class FileManager;
class Platform;

// The launcher's place on the player's desktop (DesktopIntegration), kept by the launcher itself:
// a player unpacks the bundle anywhere and starts it, and from then on the desktop's menu and
// zentho: links lead to it, wherever it is moved.
namespace DesktopCommands {

// At the start of a launcher that opens its window: integrates a bundle the desktop does not know,
// and re-points an integration whose bundle is gone (this one, moved), unless the bundle runs from
// a build folder or a temporary folder (startsIntegrate). Failures are reported on `errors` and
// otherwise ignored: the window opens all the same.
void integrateOnStart(const FileManager& files, const Platform& platform, std::FILE* errors);

// True when a start of the bundle at `bundlePath` integrates by itself: it is an ".app" bundle
// that lies neither in a build folder (the folder holding it holds CMakeCache.txt) nor in a
// temporary folder (/tmp, /var/tmp or the temporary folder the launcher uses).
bool startsIntegrate(const FileManager& files, const QString& bundlePath);

// --integrate and --uninstall: what they did goes to `output`, a failure to `errors`; the
// process's exit status.
int integrate(const FileManager& files, const Platform& platform, std::FILE* output, std::FILE* errors);
int uninstall(const FileManager& files, const Platform& platform, std::FILE* output, std::FILE* errors);

} // namespace DesktopCommands
