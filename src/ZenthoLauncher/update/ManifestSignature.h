#pragma once

#include "update/TrustedKeys.h"

#include <QByteArray>
#include <QDateTime>
#include <QString>
#include <QUrl>

#include <optional>
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
// `openssl pkeyutl -sign -rawin` writes, too). A signed manifest may carry an "expires" member,
// "2030-01-31T00:00:00Z" (UTC), after which it is refused, so an old signed manifest cannot be
// served again for ever. `noun` names the manifest in error texts: "update manifest" or
// "launcher update manifest".
namespace ManifestSignature {

inline constexpr int kSize = 64;

// `manifest` with ".sig" appended to its path; query and fragment stay as they are.
QUrl signatureURL(const QUrl& manifest);

// Throws ManifestSignatureError unless `signature` is a signature by one of `keys` over exactly
// `manifest`.
void checkSignature(const QByteArray& manifest, const QByteArray& signature,
                    const TrustedKeys& keys, const QString& noun);

// The manifest's "expires" moment; nothing when the member is absent. Throws
// ManifestSignatureError when it is there but not a string of the form 2030-01-31T00:00:00Z.
// The manifest must already have decoded.
std::optional<QDateTime> expiry(const QByteArray& manifest, const QString& noun);
// Throws ManifestSignatureError when the manifest's "expires" is malformed or `now` has reached it.
void checkNotExpired(const QByteArray& manifest, const QDateTime& now, const QString& noun);

// `moment` in the form "expires" takes, in UTC.
QString expiryText(const QDateTime& moment);

} // namespace ManifestSignature
