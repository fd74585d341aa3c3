#include "app/DesktopCommands.h"

#include "desktop/DesktopIntegration.h"
#include "platform/FileManager.h"
#include "platform/Platform.h"
#include "storage/StorageLayout.h"

#include <QDir>
#include <QFileInfo>

#include <exception>

namespace {

bool isInside(const QString& path, const QString& folder) {
    const QString root = QDir::cleanPath(folder);
    return !root.isEmpty() && (path == root || path.startsWith(root + QLatin1Char('/')));
}

DesktopIntegration integrationOf(const FileManager& files) {
    return DesktopIntegration(files, DesktopIntegration::playerFolders(files));
}

void print(std::FILE* stream, const QString& line) {
    std::fprintf(stream, "%s\n", qPrintable(line));
}

} // namespace

namespace DesktopCommands {

bool startsIntegrate(const FileManager& files, const QString& bundlePath) {
    const QFileInfo bundle(QDir::cleanPath(bundlePath));
    if (bundle.suffix() != QLatin1String("app"))
        return false;
    const QString folder = bundle.absolutePath();
    if (QFileInfo::exists(folder + QStringLiteral("/CMakeCache.txt")))
        return false;
    const QString path = bundle.absoluteFilePath();
    for (const QString& temporary : {QStringLiteral("/tmp"), QStringLiteral("/var/tmp"), files.temporaryDirectory()})
        if (isInside(path, temporary) || isInside(bundle.canonicalFilePath(), temporary))
            return false;
    return true;
}

void integrateOnStart(const FileManager& files, const Platform& platform, std::FILE* errors) {
    if (!startsIntegrate(files, platform.bundlePath()))
        return;
    try {
        const DesktopIntegration integration = integrationOf(files);
        if (integration.needFor(platform.executablePath()) != DesktopIntegration::Need::nothing)
            integration.integrate(platform.executablePath());
    } catch (const std::exception& error) {
        print(errors, QStringLiteral("ZENTHO Launcher: could not add itself to the desktop: %1")
                          .arg(QString::fromUtf8(error.what())));
    }
}

int integrate(const FileManager& files, const Platform& platform, std::FILE* output, std::FILE* errors) {
    const DesktopIntegration integration = integrationOf(files);
    try {
        integration.integrate(platform.executablePath());
    } catch (const std::exception& error) {
        print(errors, QStringLiteral("could not add the launcher to the desktop: %1").arg(QString::fromUtf8(error.what())));
        return 1;
    }
    for (const QString& written : {integration.entryPath(), integration.iconPath(), integration.metainfoPath()})
        print(output, QStringLiteral("Wrote %1").arg(written));
    print(output, QStringLiteral("Made the launcher at %1 the handler of zentho: links in %2")
                      .arg(platform.executablePath(), integration.mimeappsPath()));
    return 0;
}

int uninstall(const FileManager& files, const Platform& platform, std::FILE* output, std::FILE* errors) {
    const DesktopIntegration integration = integrationOf(files);
    QStringList removed;
    try {
        removed = integration.remove();
    } catch (const std::exception& error) {
        print(errors, QStringLiteral("could not remove the launcher from the desktop: %1").arg(QString::fromUtf8(error.what())));
        return 1;
    }
    for (const QString& path : removed)
        print(output, path == integration.mimeappsPath()
                          ? QStringLiteral("Removed the zentho: link handler from %1").arg(path)
                          : QStringLiteral("Removed %1").arg(path));
    if (removed.isEmpty())
        print(output, QStringLiteral("The desktop held nothing of the launcher."));
    StorageLayout storage(files);
    print(output, QStringLiteral("Kept the player's builds, the current-build record and the game's data in %1")
                      .arg(storage.dataFolder()));
    print(output, QStringLiteral("The launcher itself is %1; delete that folder to remove it.").arg(platform.bundlePath()));
    return 0;
}

} // namespace DesktopCommands
