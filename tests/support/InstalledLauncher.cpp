#include "InstalledLauncher.h"

#include "LauncherBundles.h"
#include "RealLauncher.h"
#include "ReleaseTool.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QFileInfo>
#include <QTest>

namespace InstalledLauncher {

bool install(const QString& bundle) {
    ReleaseTool::copyTree(LauncherBundles::builtBundle(), bundle);
    const QString verifier = bundle + QStringLiteral("/Contents/MacOS/zentho-codesign");
    return QFile::remove(verifier) && QFile::copy(LauncherBundles::testVerifier(), verifier) &&
           RealLauncher::versionOf(bundle) == QStringLiteral("0.1.190");
}

bool sealedCopy(const QString& from, const QString& bundle) {
    ReleaseTool::copyTree(from, bundle);
    const ReleaseTool::Run sealed =
        ReleaseTool::run({QStringLiteral("sign-bundle"), QStringLiteral("--key"), LauncherBundles::testKey(), bundle});
    if (!sealed.ok())
        qWarning("sign-bundle: %s", sealed.errors.constData());
    return sealed.ok();
}

bool waitForVersion(const QString& bundle, const QString& version, int timeoutMs) {
    QDeadlineTimer deadline(timeoutMs);
    while (!deadline.hasExpired()) {
        if (RealLauncher::versionOf(bundle) == version)
            return true;
        QTest::qWait(100);
    }
    return false;
}

} // namespace InstalledLauncher
