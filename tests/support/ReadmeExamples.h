#pragma once

#include <QList>
#include <QProcessEnvironment>
#include <QString>

// The shell examples of a README section, as a reader copies them: each ```sh block, run as it
// is written by /bin/sh -e, one after the other in one folder, until one fails.
namespace ReadmeExamples {

struct Block {
    int line = 0; // of the block's first command, counting from 1
    QString text;
};

// The ```sh blocks of the section that starts with the line `heading` ("## Publishing releases"),
// up to the next heading of the same level, in order; subsections included.
QList<Block> shellBlocks(const QString& readme, const QString& heading);

struct Outcome {
    bool ok = false;
    int line = 0;         // of the failing block
    int exitCode = -1;    // -1 when the block crashed or did not end in time
    QString command;      // the failing command, as the shell traced it
    QString errors;       // what that command wrote on standard error
    // "README line <line>: `<command>` ended with status <exitCode>: <errors>".
    QString describe() const;
};

// Runs `blocks` in order with /bin/sh -e in `folder` with `environment`, each to its end or for
// at most `timeoutMs`; stops at the first that fails and names the command that failed.
Outcome run(const QList<Block>& blocks, const QString& folder, const QProcessEnvironment& environment,
            int timeoutMs);

} // namespace ReadmeExamples
