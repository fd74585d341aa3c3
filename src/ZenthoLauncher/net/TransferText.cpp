#include "net/TransferText.h"

#include <QStringList>

#include <algorithm>
#include <cmath>

namespace {

const QString kSeparator = QStringLiteral(" \u00b7 ");

// What is shown of `value`: one decimal below 10, whole numbers above.
double shown(double value) {
    return value < 9.95 ? std::round(value * 10) / 10 : std::round(value);
}

// `value` (1000 or more) in the largest decimal unit that keeps it at 1 or more, the way file
// managers keep a size to a glance. The rounded figure decides, so 999 950 bytes reads "1.0 MB"
// and not "1000 kB".
QString decimal(double value, const QString& suffix) {
    static const char* const units[] = {"kB", "MB", "GB", "TB", "PB", "EB"};
    int unit = 0;
    value /= 1000.0;
    while (unit < 5 && shown(value) >= 1000) {
        value /= 1000.0;
        ++unit;
    }
    const double figure = shown(value);
    const QString number =
        figure < 10 ? QString::number(figure, 'f', 1) : QString::number(std::llround(figure));
    return number + QLatin1Char(' ') + QString::fromLatin1(units[unit]) + suffix;
}

} // namespace

namespace TransferText {

QString size(qint64 bytes) {
    if (bytes < 1000)
        return bytes == 1 ? QStringLiteral("1 byte") : QStringLiteral("%1 bytes").arg(bytes);
    return decimal(double(bytes), QString());
}

QString speed(double bytesPerSecond) {
    if (bytesPerSecond < 999.5)
        return QStringLiteral("%1 bytes/s").arg(std::llround(std::max(0.0, bytesPerSecond)));
    return decimal(bytesPerSecond, QStringLiteral("/s"));
}

QString timeLeft(std::chrono::seconds left) {
    const qint64 s = std::max<qint64>(0, left.count());
    if (s < 60)
        return QStringLiteral("about %1 s left").arg(s);
    // Whole minutes, rounded: "about 1 min" already says the second count is not exact.
    const qint64 minutes = (s + 30) / 60;
    if (minutes < 60)
        return QStringLiteral("about %1 min left").arg(minutes);
    const qint64 hours = minutes / 60;
    const qint64 rest = minutes % 60;
    if (rest == 0)
        return QStringLiteral("about %1 h left").arg(hours);
    return QStringLiteral("about %1 h %2 min left").arg(hours).arg(rest);
}

QString caption(qint64 done, std::optional<qint64> total, std::optional<double> bytesPerSecond,
                std::optional<std::chrono::seconds> left) {
    QStringList parts;
    parts << (total ? size(done) + QStringLiteral(" of ") + size(*total) : size(done));
    if (bytesPerSecond)
        parts << speed(*bytesPerSecond);
    if (total && left)
        parts << timeLeft(*left);
    return parts.join(kSeparator);
}

} // namespace TransferText
