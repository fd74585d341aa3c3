#include "LauncherVersion.h"
#include "model/LauncherModel.h"
#include "platform/LinuxPlatform.h"

#include <QGuiApplication>

#include <cstdio>
#include <cstring>

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "--version") == 0) {
        std::printf("%s\n", qPrintable(launcherVersion()));
        return 0;
    }
    QGuiApplication app(argc, argv);
    app.setApplicationName(QStringLiteral("ZENTHO Launcher"));
    LinuxPlatform platform;
    LauncherModel model(platform);
    return app.exec();
}
