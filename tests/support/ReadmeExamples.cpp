#include "ReadmeExamples.h"

#include <QProcess>
#include <QRegularExpression>
#include <QStringList>

#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

namespace ReadmeExamples {

namespace {

int headingLevel(const QString& line) {
    static const QRegularExpression heading(QStringLiteral("^(#+) "));
    return int(heading.match(line).capturedLength(1));
}

// The command `sh -x` traced last in `errors`, and what followed it there.
void splitTrace(const QString& errors, Outcome& outcome) {
    const QStringList lines = errors.split(QLatin1Char('\n'));
    qsizetype last = -1;
    for (qsizetype i = 0; i < lines.size(); ++i) {
        if (lines[i].startsWith(QLatin1String("+ ")))
            last = i;
    }
    if (last < 0) {
        outcome.errors = errors.trimmed();
        return;
    }
    outcome.command = lines[last].mid(2);
    outcome.errors = lines.mid(last + 1).join(QLatin1Char('\n')).trimmed();
}

} // namespace

QList<Block> shellBlocks(const QString& readme, const QString& heading) {
    const QStringList lines = readme.split(QLatin1Char('\n'));
    QList<Block> blocks;
    const int level = headingLevel(heading);
    bool inSection = false;
    bool inFence = false;
    bool inShell = false;
    Block block;
    for (qsizetype i = 0; i < lines.size(); ++i) {
        const QString& line = lines[i];
        if (line.startsWith(QLatin1String("```"))) {
            if (!inFence && inSection && line == QLatin1String("```sh")) {
                inShell = true;
                block = Block{int(i) + 2, QString()};
            } else if (inFence && inShell) {
                blocks.append(block);
                inShell = false;
            }
            inFence = !inFence;
            continue;
        }
        if (inShell) {
            block.text += line + QLatin1Char('\n');
            continue;
        }
        // A "# " inside a fence is a shell comment, not a heading.
        if (inFence)
            continue;
        if (line == heading)
            inSection = true;
        else if (inSection && headingLevel(line) > 0 && headingLevel(line) <= level)
            break;
    }
    return blocks;
}

QString Outcome::describe() const {
    return QStringLiteral("README line %1: `%2` ended with status %3: %4")
        .arg(line)
        .arg(command, QString::number(exitCode), errors);
}

Outcome run(const QList<Block>& blocks, const QString& folder, const QProcessEnvironment& environment,
            int timeoutMs) {
    for (const Block& block : blocks) {
        QProcess shell;
        shell.setWorkingDirectory(folder);
        shell.setProcessEnvironment(environment);
        shell.setStandardOutputFile(QProcess::nullDevice());
        // Its own process group, so that a block that does not end is stopped with everything it
        // started; and it goes with the test when the test is killed first.
        shell.setChildProcessModifier([] {
            ::setpgid(0, 0);
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        });
        shell.start(QStringLiteral("/bin/sh"), {QStringLiteral("-e"), QStringLiteral("-x"), QStringLiteral("-c"), block.text});
        bool ended = shell.waitForStarted(60000) && shell.waitForFinished(timeoutMs);
        if (!ended && shell.processId() > 0) {
            ::kill(-pid_t(shell.processId()), SIGKILL);
            shell.waitForFinished(10000);
        }
        const bool passed = ended && shell.exitStatus() == QProcess::NormalExit && shell.exitCode() == 0;
        if (passed)
            continue;
        Outcome outcome;
        outcome.line = block.line;
        outcome.exitCode = ended && shell.exitStatus() == QProcess::NormalExit ? shell.exitCode() : -1;
        splitTrace(QString::fromLocal8Bit(shell.readAllStandardError()), outcome);
        return outcome;
    }
    Outcome outcome;
    outcome.ok = true;
    return outcome;
}

} // namespace ReadmeExamples
