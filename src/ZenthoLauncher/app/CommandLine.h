#pragma once

#include <QString>
#include <QStringList>

// What the launcher's command line asks for. The desktop starts it with an invite link as its one
// argument; a person may ask for its usage or version, which are printed without a window.
struct CommandLine {
    enum class Action {
        Run,     // open the window; with a link, follow it
        Help,    // print the usage and exit 0
        Version, // print the compiled-in version and exit 0
        Integrate, // make the desktop know this bundle, say what was written, exit
        Uninstall, // take that away again, say what was removed and what was kept, exit
        Verify,  // compare saved builds with their kept indexes, say what is damaged, exit
        Repair,  // put damaged saved builds right from their kept indexes, exit
        Invalid, // print `problem` on standard error and exit 2
    };

    Action action = Action::Run;
    // The link to follow: the first argument that is not an option. Anything after "--" counts
    // as a plain argument, so a link may begin with "-". Empty when there is none.
    QString invite;
    // For Verify and Repair: the one saved build to check; empty for all of them.
    QString version;
    // For Invalid: what is wrong, as one line.
    QString problem;

    // `arguments` as the process got them, the program first. Options are read in order until
    // one decides; "--help", "-h", "--version", "--integrate", "--uninstall" and "--verify [VERSION]" and "--repair [VERSION]" are the only ones.
    static CommandLine parse(const QStringList& arguments);
    // The text --help prints; `program` is the name the launcher was started by.
    static QString usage(const QString& program);
};
