#include "FramingWindowManager.h"

#include "XvfbSession.h"

#include <QDeadlineTimer>
#include <QProcessEnvironment>
#include <QTest>

FramingWindowManager::FramingWindowManager(const XvfbSession& screen) {
    QProcessEnvironment env;
    env.insert(QStringLiteral("PATH"), qEnvironmentVariable("PATH"));
    env.insert(QStringLiteral("HOME"), home_.path());
    env.insert(QStringLiteral("DISPLAY"), screen.display());
    process_.setProcessEnvironment(env);
    process_.setStandardOutputFile(QProcess::nullDevice());
    process_.setStandardErrorFile(QProcess::nullDevice());
    process_.start(QStringLiteral("openbox"), {QStringLiteral("--sm-disable")});
    // An EWMH window manager names its check window on the root once it manages the screen.
    const QDeadlineTimer deadline(10000);
    while (!deadline.hasExpired() && process_.state() != QProcess::NotRunning) {
        if (screen.windowProperty(XvfbSession::kRootWindow, QStringLiteral("_NET_SUPPORTING_WM_CHECK"))
                .contains(QLatin1String("window id"))) {
            managing_ = true;
            break;
        }
        QTest::qWait(100);
    }
}

FramingWindowManager::~FramingWindowManager() {
    if (process_.state() == QProcess::NotRunning)
        return;
    process_.terminate();
    if (!process_.waitForFinished(5000)) {
        process_.kill();
        process_.waitForFinished();
    }
}
