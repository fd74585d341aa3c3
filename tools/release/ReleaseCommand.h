#pragma once

#include <stdexcept>
#include <string>
#include <vector>

// One subcommand of zentho-release. Each lives in its own file and defines one of these; the
// table in ZenthoRelease.cpp lists them.
struct ReleaseCommand {
    const char* name;
    const char* summary; // one line for the overview
    const char* usage;   // full help text, shown by "zentho-release <name> --help"
    // Runs with the arguments after the subcommand name. Returns the exit status; throws
    // UsageError for a bad command line and std::exception for any other failure.
    int (*run)(const std::vector<std::string>& arguments);
};

// A command line that does not fit the subcommand's usage.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

extern const ReleaseCommand keygenCommand;
extern const ReleaseCommand signBundleCommand;
extern const ReleaseCommand packCommand;
extern const ReleaseCommand verifyCommand;
extern const ReleaseCommand publishCommand;
extern const ReleaseCommand rolloutCommand;
