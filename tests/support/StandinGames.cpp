#include "StandinGames.h"

#include "TestFiles.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QFile>
#include <QThread>

namespace StandinGames {

namespace {

QString program(const QString& folder) {
    return folder + QStringLiteral("/zentho");
}

QByteArray seconds(double value) {
    return QByteArray::number(value, 'f', 3);
}

// Single-quoted for the shell; the test paths never hold a quote themselves.
QByteArray quoted(const QString& text) {
    return "'" + QFile::encodeName(text) + "'";
}

// Writes the record atomically: the arguments NUL-separated in <record>.args, the rest as lines
// in <record>, which appears last, by rename, once everything is in place.
QByteArray recordingLines(const QString& recordPath) {
    const QByteArray rec = quoted(recordPath);
    return "printf '%s\\0' \"$@\" > " + rec + ".args\n"
           "out=$(readlink /proc/$$/fd/1)\n"
           "{\n"
           "  printf 'pid=%s\\n' \"$$\"\n"
           "  printf 'argc=%s\\n' \"$#\"\n"
           "  printf 'program=%s\\n' \"$0\"\n"
           "  printf 'cwd=%s\\n' \"$(pwd -P)\"\n"
           "  printf 'mark=%s\\n' \"$ZENTHO_TEST_MARK\"\n"
           "  printf 'sigblk=%s\\n' \"$(sed -n 's/^SigBlk:[[:space:]]*//p' /proc/$$/status)\"\n"
           "  printf 'stdout=%s\\n' \"$out\"\n"
           "} > " + rec + ".tmp\n"
           "mv " + rec + ".tmp " + rec + "\n";
}

std::optional<QList<QByteArray>> statFields(qint64 pid) {
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return std::nullopt;
    const QByteArray line = stat.readAll();
    // The command name is in parentheses and may hold blanks; the fields after it are plain.
    const qsizetype close = line.lastIndexOf(')');
    if (close < 0)
        return std::nullopt;
    return line.mid(close + 2).trimmed().split(' ');
}

std::optional<qint64> statNumber(qint64 pid, int indexAfterName) {
    const auto fields = statFields(pid);
    if (!fields || fields->size() <= indexAfterName)
        return std::nullopt;
    return fields->at(indexAfterName).toLongLong();
}

} // namespace

void exitsAfter(const QString& folder, double after, int status) {
    TestFiles::writeScript(program(folder),
                           "sleep " + seconds(after) + "\nexit " + QByteArray::number(status) + "\n");
}

void killedAfter(const QString& folder, double after, int signal) {
    TestFiles::writeScript(program(folder), "sleep " + seconds(after) + "\nkill -" +
                                                QByteArray::number(signal) + " $$\nsleep 5\n");
}

void runsFor(const QString& folder, double duration) {
    // exec keeps the process identifier the launcher saw.
    TestFiles::writeScript(program(folder), "exec sleep " + seconds(duration) + "\n");
}

void recorder(const QString& folder, const QString& recordPath, double duration) {
    TestFiles::writeScript(program(folder),
                           recordingLines(recordPath) + "exec sleep " + seconds(duration) + "\n");
}

void endsWhenTold(const QString& folder, const QString& recordPath, const QString& exitSignalPath,
                  int status) {
    TestFiles::writeScript(
        program(folder), recordingLines(recordPath) + "while [ ! -e " + quoted(exitSignalPath) +
                             " ]; do sleep 0.01; done\nexit " + QByteArray::number(status) + "\n");
}

void removesItselfAndExits(const QString& folder, const QString& recordPath, int status) {
    TestFiles::writeScript(program(folder), recordingLines(recordPath) + "rm -rf " +
                                                quoted(folder) + "\nexit " +
                                                QByteArray::number(status) + "\n");
}

void withoutExecutable(const QString& folder) {
    TestFiles::writeFile(folder + QStringLiteral("/README.txt"), "no game here\n");
    TestFiles::writeScript(folder + QStringLiteral("/zentho-helper"), "exec sleep 1.5\n");
}

void notExecutable(const QString& folder) {
    TestFiles::writeFile(program(folder), "#!/bin/sh\nexec sleep 1.5\n", 0644);
}

void notAProgram(const QString& folder) {
    TestFiles::writeFile(program(folder), QByteArray("\x7f" "ELF-but-not-really\n\x01\x02", 22),
                         0755);
}

QString builtStandinGame() {
    return qEnvironmentVariable("ZENTHO_BUILD_DIR") +
           QStringLiteral("/ZenthoLauncher.app/Contents/Resources/SeedRuntime/zentho");
}

std::optional<Record> waitForRecord(const QString& recordPath, int timeoutMs) {
    QDeadlineTimer deadline(timeoutMs);
    while (!QFile::exists(recordPath)) {
        if (deadline.hasExpired())
            return std::nullopt;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        QThread::msleep(10);
    }
    Record record;
    int argc = 0;
    for (const QByteArray& line : TestFiles::readFile(recordPath).split('\n')) {
        const qsizetype eq = line.indexOf('=');
        if (eq < 0)
            continue;
        const QByteArray key = line.left(eq);
        const QString value = QString::fromUtf8(line.mid(eq + 1));
        if (key == "pid")
            record.pid = value.toLongLong();
        else if (key == "argc")
            argc = value.toInt();
        else if (key == "program")
            record.program = value;
        else if (key == "cwd")
            record.cwd = value;
        else if (key == "mark")
            record.mark = value;
        else if (key == "sigblk")
            record.blockedSignals = value;
        else if (key == "stdout")
            record.stdoutTarget = value;
    }
    const QList<QByteArray> arguments = TestFiles::readFile(recordPath + ".args").split('\0');
    for (int i = 0; i < argc && i < arguments.size(); ++i)
        record.arguments.append(QString::fromUtf8(arguments.at(i)));
    return record;
}

std::optional<char> processState(qint64 pid) {
    const auto fields = statFields(pid);
    if (!fields || fields->isEmpty() || fields->first().isEmpty())
        return std::nullopt;
    return fields->first().at(0);
}

// After the name: state, ppid, pgrp, session.
std::optional<qint64> parentProcess(qint64 pid) { return statNumber(pid, 1); }
std::optional<qint64> processGroup(qint64 pid) { return statNumber(pid, 2); }
std::optional<qint64> processSession(qint64 pid) { return statNumber(pid, 3); }

bool becomesZombieWhileNobodyLooks(qint64 pid) {
    for (int i = 0; i < 6000; ++i) {
        if (processState(pid) == 'Z')
            return true;
        QThread::msleep(10);
    }
    return false;
}

} // namespace StandinGames
