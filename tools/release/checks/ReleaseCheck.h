#pragma once

#include "formats/ChunkIndex.h"
#include "formats/ReleaseManifest.h"
#include "trust/TrustedKeys.h"

#include <QDateTime>
#include <QString>

#include <optional>
#include <stdexcept>

// The launcher's checks of a release, repeated by the release tool before anything is published,
// each failure naming the check: "sha256: the archive's digest is ...".
class CheckFailed : public std::runtime_error {
public:
    CheckFailed(const std::string& check, const QString& reason);
};

// What a release is checked against: the keys its bundle may be sealed with, and the keys its
// manifest must be signed with (none: the manifest may go unsigned).
struct ReleaseCheckKeys {
    TrustedKeys seal;
    TrustedKeys manifest;
};

// Where a release's chunks are checked from, when its manifest names chunks: the index (empty:
// beside the archive, under the name its url gives) and the chunk store folder (empty: the
// chunks are not checked).
struct ReleaseChunkFiles {
    QString index;
    QString store;
};

// A release that passed every check.
struct CheckedRelease {
    ReleaseManifest manifest;
    QString manifestPath;
    QString archivePath;
    std::optional<QString> signaturePath; // MANIFEST.sig, when the manifest is signed
    std::optional<QDateTime> expires;     // the signed manifest's "expires"
    std::optional<QString> indexPath;     // the chunk index, when the manifest names chunks
    std::optional<QString> compressedIndexPath; // beside it, when the manifest names one
    std::optional<QString> packPath;      // the chunk pack beside it, when the manifest names one
    QString packSha256;                   // and its digest
    std::optional<ChunkIndex> index;      // and what it says
    QString checks;                       // what was checked, e.g. "digest, listing, executable"
};

namespace ReleaseCheck {

// Checks the manifest at `manifestPath` and the archive at `archivePath` as the launcher will, in
// its order: the signature MANIFEST.sig (required when `keys.manifest` is not empty, checked
// whenever it is there), decoding, the "expires" of a signed manifest, the platform, a version
// that can name a folder, an http(s) url, the digest, the listing, and after a trial extraction
// the executable and, for a launcher, checkLauncherBundle. When the manifest names chunks: the
// index's digest and content against the unpacked archive and, with a store, every chunk (see
// ChunkCheck). Throws CheckFailed, or UsageError when a signature is there and no key can check
// it.
CheckedRelease check(const QString& manifestPath, const QString& archivePath,
                     const ReleaseCheckKeys& keys, const ReleaseChunkFiles& chunkFiles = {});

// A launcher bundle's own checks: an executable Contents/MacOS/ZenthoLauncher, a seal by one of
// `sealKeys` that matches every entry, every library it needs carried or provided by every desktop
// within the floors (BundlePortability), and a Contents/Info.json that says `version`, the one
// `versionSource` names ("--version", "the manifest"). Throws CheckFailed.
void checkLauncherBundle(const QString& bundle, const QString& version, const QString& versionSource,
                         const TrustedKeys& sealKeys);

} // namespace ReleaseCheck
