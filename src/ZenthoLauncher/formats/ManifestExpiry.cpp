#include "formats/ManifestExpiry.h"

#include "formats/StrictJson.h"
#include "trust/ManifestSignature.h"

#include <QJsonObject>
#include <QRegularExpression>

namespace ManifestExpiry {

std::optional<QDateTime> expiry(const QByteArray& manifest, const QString& noun) {
    const StrictJson json = StrictJson::parse(manifest);
    const QJsonObject object = json.value.toObject();
    const auto found = object.constFind(QStringLiteral("expires"));
    if (found == object.constEnd())
        return std::nullopt;
    // One spelling only, always UTC: a moment without its zone would mean a different moment on
    // every player's machine.
    static const QRegularExpression form(
        QStringLiteral("^\\d{4}-\\d{2}-\\d{2}T\\d{2}:\\d{2}:\\d{2}Z$"));
    const QString text = found->toString();
    const QDateTime moment = QDateTime::fromString(text, Qt::ISODate);
    if (!found->isString() || !form.match(text).hasMatch() || !moment.isValid())
        throw ManifestSignatureError(
            QStringLiteral("The %1's \"expires\" is not a time such as 2030-01-31T00:00:00Z.").arg(noun));
    return moment;
}

void checkNotExpired(const QByteArray& manifest, const QDateTime& now, const QString& noun) {
    const std::optional<QDateTime> moment = expiry(manifest, noun);
    if (moment && now >= *moment)
        throw ManifestSignatureError(
            QStringLiteral("The %1 expired at %2.").arg(noun, text(*moment)));
}

QString text(const QDateTime& moment) {
    return moment.toUTC().toString(QStringLiteral("yyyy-MM-ddTHH:mm:ss'Z'"));
}

} // namespace ManifestExpiry
