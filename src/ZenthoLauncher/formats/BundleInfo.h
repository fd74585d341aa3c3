#pragma once

#include <QString>

#include <optional>
#include <stdexcept>

// What a launcher bundle says about itself: the small file Contents/Info.json, written by the
// build from the version it compiles in and covered by the bundle's seal, {"version":"0.1.190"}.
// Other members are ignored, so the file can grow.

// The bundle's Info.json is there but cannot be read, is larger than it could ever need to be, or
// does not hold a "version" string.
class BundleInfoError : public std::runtime_error {
public:
    explicit BundleInfoError(const QString& description)
        : std::runtime_error(description.toStdString()) {}
};

// A staged launcher bundle that is the launcher already running, although its manifest names
// another version: handing it over would restart the same launcher, which would find the same
// update again on every start.
class StaleLauncherUpdateError : public std::runtime_error {
public:
    explicit StaleLauncherUpdateError(const QString& description)
        : std::runtime_error(description.toStdString()) {}
};

namespace BundleInfo {

inline constexpr const char* kPath = "Contents/Info.json";

// The version the bundle at `bundle` says it is; nothing when it has no Info.json (a bundle laid
// out by hand). Throws BundleInfoError as above.
std::optional<QString> version(const QString& bundle);

// Throws StaleLauncherUpdateError when the bundle at `staged` says it is `running` while its
// manifest names `announced`, another version. A bundle that does not say its version passes.
void refuseRunningVersion(const QString& staged, const QString& running, const QString& announced);

} // namespace BundleInfo
