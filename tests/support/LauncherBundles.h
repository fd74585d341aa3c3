#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <optional>

// Small launcher bundles for the self-update tests, and the tools that seal them.
namespace LauncherBundles {

// A bundle folder whose Contents/MacOS/ZenthoLauncher is a shell script that appends `label`, then
// each argument it was given, one per line, to `recordPath` when it runs, plus one resource file.
void makeFake(const QString& bundle, const QByteArray& label, const QString& recordPath);

// The labels recorded so far, one per start, in order.
QByteArray recorded(const QString& recordPath);
// Waits (processing events) up to `timeoutMs` for `recordPath` to hold `expected`.
bool waitForRecorded(const QString& recordPath, const QByteArray& expected, int timeoutMs = 60000);

// The build folder the tests run from, and the signing tools and test key it holds.
QString buildDir();
QString releaseTool();   // zentho-release
QString testVerifier();  // the zentho-codesign that trusts testKey()
QString testKey();       // private key PEM
// The private key the build seals its own bundle with when it is given none: the launcher that
// players get from such a build trusts it, and no other launcher's verifier does.
QString developmentKey();
QString builtBundle();   // <build>/ZenthoLauncher.app

// Seals `bundle` with `key` through zentho-release; true on exit status 0.
bool seal(const QString& bundle, const QString& key);

// A process identifier that belonged to a process that has ended and been collected.
qint64 endedProcessIdentifier();
// True while a process with this identifier exists (a zombie counts as gone).
bool processRuns(qint64 pid);

// Waits (processing events) up to `timeoutMs` until the finish script at `scriptPath` runs and
// waits for the old launcher to go: the script's loop has found the launcher still running and
// sleeps before it looks again, which is the only place it starts `sleep`. Until that launcher
// ends, nothing of the swap can have happened. Returns the script's process identifier, or
// nothing.
std::optional<qint64> finishScriptWaiting(const QString& scriptPath, int timeoutMs = 60000);

} // namespace LauncherBundles
