#include "FlowScenario.h"

#include "GameWatch.h"
#include "LauncherModelProbe.h"
#include "RecordingPlatform.h"
#include "TestServer.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QGuiApplication>
#include <QProcess>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QTimer>

#include <cstdio>

namespace {

const char* const kChildFlag = "--flow-scenario-child";

void emitLine(const QByteArray& line) {
    std::fwrite(line.constData(), 1, static_cast<size_t>(line.size()), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

// Waits until the press has ended: the launcher asked to quit, or it is idle again.
bool waitForEnd(LauncherModel& model, RecordingPlatform& platform, int quitsBefore) {
    const QDeadlineTimer deadline(240000);
    // A steady tick keeps the wait from sleeping past the end, without spinning the CPU that the
    // launcher, nginx and the game need.
    QTimer tick;
    tick.start(2);
    while (!deadline.hasExpired()) {
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        if (platform.quitCount > quitsBefore || !model.busy())
            return true;
    }
    return false;
}

int runChild(int argc, char** argv) {
    QGuiApplication app(argc, argv);
    // Trust the parent's test CA: a CA made here would not be the one its server presents.
    QSslConfiguration ssl = QSslConfiguration::defaultConfiguration();
    ssl.addCaCertificates(QSslCertificate::fromPath(qEnvironmentVariable("ZENTHO_TEST_CA_FILE")));
    QSslConfiguration::setDefaultConfiguration(ssl);
    const QString exe = qEnvironmentVariable("ZENTHO_TEST_BUNDLE_EXE");
    RecordingPlatform platform(exe, {exe});
    // Ends the games this press started, once the press is over and reported.
    GameWatch games;
    LauncherModel model(platform);
    LauncherModelProbe::setStartupWatch(model, games.watch());

    const QString invite = qEnvironmentVariable("ZENTHO_TEST_INVITE");
    const QString inviteAt = qEnvironmentVariable("ZENTHO_TEST_INVITE_AT");
    bool invited = false;
    QObject::connect(&model, &LauncherModel::statusChanged, [&] {
        // Percent-encoded so that a status with a line break stays one line.
        emitLine("status:" + model.status().toUtf8().toPercentEncoding(" :;.,'()"));
        if (!invite.isEmpty() && !invited && model.status() == inviteAt) {
            invited = true;
            model.openInviteURL(invite);
        }
    });

    const int presses = qEnvironmentVariableIntValue("ZENTHO_TEST_PRESSES");
    // Measured for the benchmarks only; no test asserts on it.
    QElapsedTimer sincePress;
    sincePress.start();
    for (int press = 0; press < std::max(presses, 1); ++press) {
        const int quitsBefore = platform.quitCount;
        if (!invite.isEmpty() && inviteAt.isEmpty() && !invited) {
            invited = true;
            model.openInviteURL(invite);
        } else {
            model.updateAndPlay();
        }
        if (qEnvironmentVariable("ZENTHO_TEST_DOUBLE_PRESS") == QLatin1String("1"))
            model.updateAndPlay();
        if (!waitForEnd(model, platform, quitsBefore)) {
            emitLine("timeout");
            break;
        }
        if (platform.quitCount > quitsBefore)
            break;
    }
    emitLine("elapsed:" + QByteArray::number(sincePress.nsecsElapsed() / 1000));
    emitLine("quit:" + QByteArray::number(platform.quitCount));
    emitLine(QByteArray("busy:") + (model.busy() ? "1" : "0"));
    return 0;
}

} // namespace

namespace FlowScenario {

std::optional<int> runChildIfAsked(int argc, char** argv) {
    if (argc >= 2 && qstrcmp(argv[1], kChildFlag) == 0)
        return runChild(argc, argv);
    return std::nullopt;
}

FlowOutcome run(const QProcessEnvironment& environment) {
    QProcess child;
    QProcessEnvironment childEnvironment = environment;
    childEnvironment.insert(QStringLiteral("ZENTHO_TEST_CA_FILE"), TestServer::caPath());
    child.setProcessEnvironment(childEnvironment);
    child.start(QCoreApplication::applicationFilePath(), {QString::fromLatin1(kChildFlag)});
    FlowOutcome outcome;
    if (!child.waitForFinished(300000)) {
        child.kill();
        child.waitForFinished();
    }
    outcome.exitCode = child.exitStatus() == QProcess::NormalExit ? child.exitCode() : -1;
    outcome.childErrors = QString::fromUtf8(child.readAllStandardError());
    const QStringList lines = QString::fromUtf8(child.readAllStandardOutput()).split(QLatin1Char('\n'));
    for (const QString& line : lines) {
        if (line.startsWith(QLatin1String("status:")))
            outcome.statuses << QString::fromUtf8(
                QByteArray::fromPercentEncoding(line.mid(7).toUtf8()));
        else if (line.startsWith(QLatin1String("quit:")))
            outcome.quitCount = line.mid(5).toInt();
        else if (line.startsWith(QLatin1String("elapsed:")))
            outcome.elapsedMicroseconds = line.mid(8).toLongLong();
        else if (line.startsWith(QLatin1String("busy:")))
            outcome.busy = line.mid(5) == QLatin1String("1");
    }
    if (qEnvironmentVariableIsSet("ZENTHO_TEST_VERBOSE"))
        qInfo() << outcome.statuses << outcome.childErrors;
    return outcome;
}

} // namespace FlowScenario
