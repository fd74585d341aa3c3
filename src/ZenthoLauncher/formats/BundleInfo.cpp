#include "formats/BundleInfo.h"

#include "formats/StrictJson.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonObject>

namespace {

// A version and a few more members fit many times over; a larger file is not one the build made.
constexpr qint64 kMaximumBytes = 64 * 1024;

} // namespace

namespace BundleInfo {

std::optional<QString> version(const QString& bundle) {
    const QString path = bundle + QLatin1Char('/') + QLatin1String(kPath);
    const QFileInfo info(path);
    if (!info.exists() && !info.isSymLink())
        return std::nullopt;
    QFile file(path);
    if (!info.isFile() || !file.open(QIODevice::ReadOnly))
        throw BundleInfoError(QStringLiteral("%1 cannot be read").arg(QLatin1String(kPath)));
    const QByteArray bytes = file.read(kMaximumBytes + 1);
    if (bytes.size() > kMaximumBytes)
        throw BundleInfoError(QStringLiteral("%1 is larger than 64 KiB").arg(QLatin1String(kPath)));
    const StrictJson json = StrictJson::parse(bytes);
    const QJsonValue value = json.ok() ? json.value.toObject().value(QStringLiteral("version"))
                                       : QJsonValue();
    if (!value.isString() || value.toString().isEmpty())
        throw BundleInfoError(
            QStringLiteral("%1 does not hold a \"version\" text").arg(QLatin1String(kPath)));
    return value.toString();
}

void refuseRunningVersion(const QString& staged, const QString& running, const QString& announced) {
    const std::optional<QString> own = version(staged);
    if (own && *own == running && announced != running)
        throw StaleLauncherUpdateError(
            QStringLiteral("The launcher update is version %1, the version already running, "
                           "although its manifest names %2.")
                .arg(running, announced));
}

} // namespace BundleInfo
