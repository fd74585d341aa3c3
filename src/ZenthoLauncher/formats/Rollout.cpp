#include "formats/Rollout.h"

#include <QJsonObject>
#include <QRegularExpression>

#include <algorithm>
#include <cmath>

namespace {

// The one spelling "start" takes, always UTC, as "expires" does: a moment without its zone would
// be a different moment on every player's machine.
std::optional<QDateTime> moment(const QJsonValue& value) {
    static const QRegularExpression form(QStringLiteral("^\\d{4}-\\d{2}-\\d{2}T\\d{2}:\\d{2}:\\d{2}Z$"));
    if (!value.isString() || !form.match(value.toString()).hasMatch())
        return std::nullopt;
    const QDateTime parsed = QDateTime::fromString(value.toString(), Qt::ISODate);
    return parsed.isValid() ? std::optional(parsed.toUTC()) : std::nullopt;
}

QString momentText(const QDateTime& at) {
    return at.toUTC().toString(QStringLiteral("yyyy-MM-ddTHH:mm:ss'Z'"));
}

QString percentText(double percent) {
    return QString::number(percent, 'g', 6) + QStringLiteral(" %");
}

// A year of growth at most: longer is a typo, and would leave players waiting for ever.
constexpr double kLongestHours = 24.0 * 366;

} // namespace

std::optional<Rollout> Rollout::from(const QJsonValue& member) {
    if (!member.isObject())
        return std::nullopt;
    const QJsonObject object = member.toObject();
    const QJsonValue percent = object.value(QStringLiteral("percent"));
    if (!percent.isDouble() || !std::isfinite(percent.toDouble()) || percent.toDouble() < 0 || percent.toDouble() > 100)
        return std::nullopt;
    Rollout rollout;
    rollout.percent = percent.toDouble();
    const bool hasStart = object.contains(QStringLiteral("start"));
    const bool hasHours = object.contains(QStringLiteral("hours"));
    if (hasStart != hasHours)
        return std::nullopt;
    if (hasStart) {
        rollout.start = moment(object.value(QStringLiteral("start")));
        const QJsonValue hours = object.value(QStringLiteral("hours"));
        if (!rollout.start || !hours.isDouble() || !(hours.toDouble() > 0) || hours.toDouble() > kLongestHours)
            return std::nullopt;
        rollout.hours = hours.toDouble();
    }
    return rollout;
}

QByteArray Rollout::encode() const {
    QByteArray json = "{\"percent\":" + QByteArray::number(percent, 'g', 10);
    if (start)
        json += ",\"start\":\"" + momentText(*start).toLatin1() + "\",\"hours\":" + QByteArray::number(hours, 'g', 10);
    return json + '}';
}

double Rollout::shareAt(const QDateTime& now) const {
    if (!start)
        return percent;
    if (now < *start)
        return 0;
    const double elapsedHours = double(start->msecsTo(now)) / 3.6e6;
    return std::min(100.0, percent + (100.0 - percent) * elapsedHours / hours);
}

QString Rollout::describe(const QDateTime& now) const {
    if (!start) {
        return percent == 0 ? QStringLiteral("halted: offered to no more installations")
                            : QStringLiteral("%1 of installations").arg(percentText(percent));
    }
    const QDateTime end = start->addMSecs(qint64(hours * 3.6e6));
    return QStringLiteral("%1 of installations from %2, growing to 100 % by %3 (now %4)")
        .arg(percentText(percent), momentText(*start), momentText(end), percentText(shareAt(now)));
}
