#include "TrustedSigningKey.h"

#include "app/CommandLine.h"
#include "app/DesktopCommands.h"
#include "app/InviteChannel.h"
#include "app/RepairCommand.h"
#include "app/VerifyCommand.h"
#include "desktop/LinuxPlatform.h"
#include "identity/LauncherVersion.h"
#include "model/LauncherModel.h"
#include "platform/FileManager.h"
#include "storage/StorageLayout.h"
#include "trust/BundleVerifierCommand.h"
#include "ui/MainWindow.h"

#include <QFile>
#include <QFileInfo>
#include <QGuiApplication>
#include <QPointer>
#include <QQuickWindow>

#include <cstdio>
#include <cstring>
#include <exception>

namespace {

QStringList argumentsOf(int argc, char** argv) {
    QStringList arguments;
    for (int i = 0; i < argc; ++i)
        arguments.append(QFile::decodeName(argv[i]));
    return arguments;
}

} // namespace

// The launcher's main(): the bundle's executable (BundleStart) loads the library this is in from
// the bundle's Frameworks folder and calls it with its own command line.
extern "C" int zenthoLauncherMain(int argc, char** argv) {
    // The bundle verifier's mode, for a launcher that runs without zentho-codesign beside it:
    // decided before any Qt object exists, so it needs no display and opens no window.
    if (argc >= 2 && std::strcmp(argv[1], "--codesign") == 0)
        return runBundleVerifier(argc - 1, argv + 1, kTrustedPublicKeyPem);
    // The command line is read here, whole, before Qt sees any of it: --help and --version need
    // no display, and a link is never taken for one of Qt's own options.
    const QStringList arguments = argumentsOf(argc, argv);
    const CommandLine command = CommandLine::parse(arguments);
    const QString program = QFileInfo(arguments.value(0)).fileName();
    switch (command.action) {
    case CommandLine::Action::Help:
        std::fputs(qPrintable(CommandLine::usage(program)), stdout);
        return 0;
    case CommandLine::Action::Version:
        std::printf("%s\n", qPrintable(launcherVersion()));
        return 0;
    case CommandLine::Action::Integrate:
        return DesktopCommands::integrate(FileManager::defaultManager(), LinuxPlatform(), stdout, stderr);
    case CommandLine::Action::Uninstall:
        return DesktopCommands::uninstall(FileManager::defaultManager(), LinuxPlatform(), stdout, stderr);
    case CommandLine::Action::Verify:
        return verifySavedBuilds(FileManager::defaultManager(), command.version, stdout, stderr);
    case CommandLine::Action::Repair:
        return repairSavedBuilds(FileManager::defaultManager(), command.version, stdout, stderr);
    case CommandLine::Action::Invalid:
        std::fprintf(stderr, "%s: %s\n", qPrintable(program), qPrintable(command.problem));
        return 2;
    case CommandLine::Action::Run:
        break;
    }

    // Qt is given the program's name only; what followed it has been read above.
    static int qtArgc = 1;
    static char* qtArgv[] = {argv[0], nullptr};
    QGuiApplication app(qtArgc, qtArgv);
    // The name is the window's class (WM_CLASS on X11), the same whatever path started the
    // launcher, so desktops tie its window to the desktop entry (StartupWMClass) also after a
    // self-update has started it from inside the bundle.
    app.setApplicationName(QStringLiteral("zentho-launcher"));
    app.setApplicationDisplayName(QStringLiteral("ZENTHO Launcher"));
    app.setApplicationVersion(launcherVersion());
    app.setDesktopFileName(QStringLiteral("zentho-launcher"));

    // One launcher per user (per storage): a later start hands its link (or just a wish to be
    // seen) to the launcher that already runs, and ends.
    const QString invite = command.invite;
    StorageLayout storage(FileManager::defaultManager());
    InviteChannel channel(InviteChannel::defaultAddress(storage.launcherRoot()));
    if (channel.startOrForward(invite) == InviteChannel::Role::Forwarded)
        return 0;

    LinuxPlatform platform;
    DesktopCommands::integrateOnStart(FileManager::defaultManager(), platform, stderr);
    LauncherModel model(platform);
    try {
        MainWindow window(model, platform);
        // A link handed over once this launcher can no longer pass it on is refused, and the
        // launcher that brought it follows it itself.
        channel.setAcceptsInvites(
            [guard = QPointer<LauncherModel>(&model)] { return guard && guard->followsInvites(); });
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
