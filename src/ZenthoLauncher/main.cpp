#include "LauncherVersion.h"
#include "TrustedSigningKey.h"
#include "model/LauncherModel.h"
#include "platform/FileManager.h"
#include "platform/LinuxPlatform.h"
#include "storage/StorageLayout.h"
#include "ui/InviteChannel.h"
#include "ui/MainWindow.h"
#include "update/BundleVerifierCommand.h"

#include <QGuiApplication>
#include <QQuickWindow>

#include <cstdio>
#include <cstring>
#include <exception>

namespace {

// The link the desktop asked the launcher to open: the first argument that is not an option
// (anything after "--" counts as a plain argument). Empty when there is none.
QString inviteFromArguments(const QStringList& arguments) {
    bool optionsEnded = false;
    for (qsizetype i = 1; i < arguments.size(); ++i) {
        const QString& argument = arguments.at(i);
        if (!optionsEnded && argument == QLatin1String("--")) {
            optionsEnded = true;
            continue;
        }
        if (optionsEnded || !argument.startsWith(QLatin1Char('-')))
            return argument;
    }
    return {};
}

} // namespace

int main(int argc, char** argv) {
    // The bundle verifier's mode, for a launcher that runs without zentho-codesign beside it:
    // decided before any Qt object exists, so it needs no display and opens no window.
    if (argc >= 2 && std::strcmp(argv[1], "--codesign") == 0)
        return runBundleVerifier(argc - 1, argv + 1, kTrustedPublicKeyPem);
    if (argc == 2 && std::strcmp(argv[1], "--version") == 0) {
        std::printf("%s\n", qPrintable(launcherVersion()));
        return 0;
    }
    QGuiApplication app(argc, argv);
    app.setApplicationName(QStringLiteral("ZENTHO Launcher"));
    app.setApplicationVersion(launcherVersion());
    app.setDesktopFileName(QStringLiteral("zentho-launcher"));

    // One launcher per user (per storage): a later start hands its link (or just a wish to be
    // seen) to the launcher that already runs, and ends.
    const QString invite = inviteFromArguments(app.arguments());
    StorageLayout storage(FileManager::defaultManager());
    InviteChannel channel(InviteChannel::defaultAddress(storage.launcherRoot()));
    if (channel.startOrForward(invite) == InviteChannel::Role::Forwarded)
        return 0;

    LinuxPlatform platform;
    LauncherModel model(platform);
    try {
        MainWindow window(model, platform);
        QObject::connect(&channel, &InviteChannel::inviteReceived, window.window(),
                         [&](const QString& forwarded) {
                             window.bringToFront();
                             if (!forwarded.isEmpty())
                                 model.openInviteURL(forwarded);
                         });
        window.show();
        if (!invite.isEmpty())
            model.openInviteURL(invite);
        return app.exec();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "ZENTHO Launcher: cannot show its window: %s\n", error.what());
        return 1;
    }
}
