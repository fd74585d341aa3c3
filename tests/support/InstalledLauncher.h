#pragma once

// The user's copy of the built launcher (0.1.190) in a test's folder, as the end-to-end tests of
// the launcher's update of itself start from it, and the sealed bundles they publish.

#include <QString>

namespace InstalledLauncher {

// Copies the built bundle to `bundle`; its verifier becomes the test build that trusts the test
// key, so the tests never need the key the real build trusts. False when that fails.
bool install(const QString& bundle);

// Copies `from` to `bundle` and seals it with the test key. False when that fails.
bool sealedCopy(const QString& from, const QString& bundle);

// Waits until the bundle at `bundle` answers `version`.
bool waitForVersion(const QString& bundle, const QString& version, int timeoutMs = 20000);

} // namespace InstalledLauncher
