#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QString>

#include <optional>

// A signed manifest may carry an "expires" member, "2030-01-31T00:00:00Z" (UTC), after which it is
// refused, so an old signed manifest cannot be served again for ever. Readers that do not check
// signatures ignore the member. `noun` names the manifest in error texts: "update manifest" or
// "launcher update manifest".
namespace ManifestExpiry {

// The manifest's "expires" moment; nothing when the member is absent. Throws
// ManifestSignatureError when it is there but not a string of the form 2030-01-31T00:00:00Z.
// The manifest must already have decoded.
std::optional<QDateTime> expiry(const QByteArray& manifest, const QString& noun);
// Throws ManifestSignatureError when the manifest's "expires" is malformed or `now` has reached it.
void checkNotExpired(const QByteArray& manifest, const QDateTime& now, const QString& noun);

// `moment` in the form "expires" takes, in UTC.
QString text(const QDateTime& moment);

} // namespace ManifestExpiry
