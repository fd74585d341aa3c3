#pragma once

#include "trust/TrustedKeys.h"

#include <QByteArray>
#include <QString>
#include <QUrl>

#include <stdexcept>

// A release manifest that a launcher requiring signed manifests refuses: no signature, one that no
// trusted key made, or an "expires" member that has passed or cannot be read. Reaches the user
// with its own text, like a manifest that does not decode.
class ManifestSignatureError : public std::runtime_error {
public:
    explicit ManifestSignatureError(const QString& description)
        : std::runtime_error(description.toStdString()) {}
};

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
