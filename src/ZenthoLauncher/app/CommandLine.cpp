#include "app/CommandLine.h"

CommandLine CommandLine::parse(const QStringList& arguments) {
    CommandLine result;
    bool optionsEnded = false;
    for (qsizetype i = 1; i < arguments.size(); ++i) {
        const QString& argument = arguments.at(i);
        if (optionsEnded || !argument.startsWith(QLatin1Char('-'))) {
            if (result.invite.isEmpty())
                result.invite = argument;
            continue;
        }
        if (argument == QLatin1String("--")) {
            optionsEnded = true;
        } else if (argument == QLatin1String("--help") || argument == QLatin1String("-h")) {
            result.action = Action::Help;
            return result;
        } else if (argument == QLatin1String("--version")) {
            result.action = Action::Version;
            return result;
        } else if (argument == QLatin1String("--integrate")) {
            result.action = Action::Integrate;
            return result;
        } else if (argument == QLatin1String("--uninstall")) {
            result.action = Action::Uninstall;
            return result;
        } else if (argument == QLatin1String("--verify") || argument == QLatin1String("--repair")) {
            result.action = argument == QLatin1String("--verify") ? Action::Verify : Action::Repair;
            const QString next = arguments.value(i + 1);
            if (!next.isEmpty() && !next.startsWith(QLatin1Char('-')))
                result.version = next;
            return result;
        } else {
            result.action = Action::Invalid;
            result.problem = QStringLiteral("unknown option \"%1\" (see --help)").arg(argument);
            return result;
        }
    }
    return result;
}

QString CommandLine::usage(const QString& program) {
    return QStringLiteral(
               "Usage: %1 [LINK]\n"
               "       %1 --help | --version | --integrate | --uninstall\n"
               "       %1 --verify [VERSION] | --repair [VERSION]\n"
               "\n"
               "Keeps ZENTHO up to date: its main button installs a newer launcher or game when\n"
               "there is one, starts the game and quits; when the network fails, the installed\n"
               "game starts anyway. Without a LINK it opens its window and waits for the player.\n"
               "\n"
               "LINK is an invite (a zentho: link). The launcher presses its main button at once\n"
               "and the game receives the link, as it stands, as its only argument. When a\n"
               "launcher is already open, the link is handed to it and this one exits.\n"
               "\n"
               "On its first start the launcher adds itself to the desktop: a menu entry that\n"
               "also opens zentho: links, its icon and its software-centre data, in your XDG\n"
               "folders. A launcher that was moved points them at its new place on its next\n"
               "start. A launcher started from a build folder (one holding CMakeCache.txt) or\n"
               "from a temporary folder does not, unless asked with --integrate.\n"
               "\n"
               "Options:\n"
               "  -h, --help   print this help and exit\n"
               "  --version    print the launcher's version and exit\n"
               "  --integrate  add this launcher to the desktop now, wherever it is, and exit\n"
               "  --uninstall  remove it from the desktop again and exit; your saved builds and\n"
               "               the game's data stay\n"
               "  --verify [VERSION]\n"
               "               compare every saved build, or the one named, with what its\n"
               "               release listed: print what is missing or changed, and exit 1\n"
               "               when anything is\n"
               "  --repair [VERSION]\n"
               "               put damaged saved builds right, fetching only what is nowhere on\n"
               "               this disk; exit 1 when one could not be\n"
               "  --           end of options: the next argument is the link, even if it begins\n"
               "               with \"-\"\n"
               "\n"
               "Environment:\n"
               "  ZENTHO_UPDATE_MANIFEST           the game's release manifest, an https: or\n"
               "                                   file: URL, instead of the release server's\n"
               "  ZENTHO_LAUNCHER_UPDATE_MANIFEST  the launcher's own release manifest, likewise\n"
               "\n"
               "Builds and their record live in $XDG_DATA_HOME/Zentho/launcher\n"
               "(~/.local/share/Zentho/launcher when XDG_DATA_HOME is not set).\n")
        .arg(program);
}
