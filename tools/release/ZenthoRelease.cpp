// zentho-release: the release engineer's tool for launcher and game releases. Each subcommand is one
// ReleaseCommand in its own file; errors are one line on standard error and a non-zero status
// (2 for a bad command line, 1 for anything else).

#include "ReleaseCommand.h"

#include "identity/LauncherVersion.h"

#include <cstdio>
#include <exception>
#include <string>
#include <vector>

namespace {

const std::vector<const ReleaseCommand*>& commands() {
    static const std::vector<const ReleaseCommand*> all{&keygenCommand, &signBundleCommand,
                                                        &packCommand, &verifyCommand,
                                                        &publishCommand, &rolloutCommand};
    return all;
}

void printOverview(std::FILE* stream) {
    std::fprintf(stream, "usage: zentho-release <command> [arguments]\n\ncommands:\n");
    for (const ReleaseCommand* command : commands())
        std::fprintf(stream, "  %-12s %s\n", command->name, command->summary);
    std::fprintf(stream, "\nRun \"zentho-release <command> --help\" for a command's usage, and\n"
                         "\"zentho-release --version\" for the launcher version it was built with.\n");
}

} // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    if (arguments.empty()) {
        printOverview(stderr);
        return 2;
    }
    if (arguments[0] == "--help" || arguments[0] == "-h" || arguments[0] == "help") {
        printOverview(stdout);
        return 0;
    }
    // The version compiled into the launcher built beside this tool, printed as the launcher
    // prints it.
    if (arguments[0] == "--version") {
        std::printf("%s\n", launcherVersion().toUtf8().constData());
        return 0;
    }
    for (const ReleaseCommand* command : commands()) {
        if (arguments[0] != command->name)
            continue;
        const std::vector<std::string> rest(arguments.begin() + 1, arguments.end());
        for (const std::string& argument : rest) {
            if (argument == "--help" || argument == "-h") {
                std::fputs(command->usage, stdout);
                return 0;
            }
        }
        try {
            return command->run(rest);
        } catch (const UsageError& error) {
            std::fprintf(stderr, "zentho-release %s: %s (see --help)\n", command->name,
                         error.what());
            return 2;
        } catch (const std::exception& error) {
            std::fprintf(stderr, "zentho-release %s: %s\n", command->name, error.what());
            return 1;
        }
    }
    std::fprintf(stderr, "zentho-release: unknown command \"%s\" (see --help)\n",
                 arguments[0].c_str());
    return 2;
}
