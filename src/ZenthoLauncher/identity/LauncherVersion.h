#pragma once

#include <QString>

// The running launcher's own version, fixed at build time. It is also the version assumed for
// the seed runtime that ships inside the bundle.
QString launcherVersion();
