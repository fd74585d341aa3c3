#pragma once

#include "errors/Failure.h"
#include "trust/TrustedKeys.h"

#include <QByteArray>
#include <QString>
#include <QUrl>

// The detached signature of a release manifest: the 64 bytes of an Ed25519 signature over the
// manifest's exact bytes, served beside it with ".sig" appended to its name (what
// `openssl pkeyutl -sign -rawin` writes, too). `noun` names the manifest in error texts: "update
// manifest" or "launcher update manifest".
namespace ManifestSignature {

inline constexpr int kSize = 64;

// `manifest` with ".sig" appended to its path; query and fragment stay as they are.
QUrl signatureURL(const QUrl& manifest);

// Throws ManifestSignatureError unless `signature` is a signature by one of `keys` over exactly
// `manifest`.
void checkSignature(const QByteArray& manifest, const QByteArray& signature,
                    const TrustedKeys& keys, const QString& noun);

} // namespace ManifestSignature
