#pragma once

#include "errors/Failure.h"

#include <QString>

#include <optional>

// What a launcher bundle says about itself: the small file Contents/Info.json, written by the
// build from the version it compiles in and covered by the bundle's seal, {"version":"0.1.190"}.
// Other members are ignored, so the file can grow.

namespace BundleInfo {

inline constexpr const char* kPath = "Contents/Info.json";

// The version the bundle at `bundle` says it is; nothing when it has no Info.json (a bundle laid
// out by hand). Throws BundleInfoError as above.
std::optional<QString> version(const QString& bundle);

// Throws StaleLauncherUpdateError when the bundle at `staged` says it is `running` while its
// manifest names `announced`, another version. A bundle that does not say its version passes.
void refuseRunningVersion(const QString& staged, const QString& running, const QString& announced);

} // namespace BundleInfo
