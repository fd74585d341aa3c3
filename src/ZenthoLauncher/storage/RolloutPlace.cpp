#include "storage/RolloutPlace.h"

#include "platform/FileManager.h"

#include <QDebug>
#include <QRandomGenerator>

#include <cmath>
#include <exception>
#include <optional>

namespace {

std::optional<double> readPlace(const FileManager& files, const QString& path) {
    if (!files.fileExists(path))
        return std::nullopt;
    QByteArray text;
    try {
        text = files.readFile(path);
    } catch (const std::exception&) {
        return std::nullopt;
    }
    bool ok = false;
    const double place = text.left(64).trimmed().toDouble(&ok);
    if (!ok || !std::isfinite(place) || place < 0 || place >= 100)
        return std::nullopt;
    return place;
}

} // namespace

namespace RolloutPlace {

double of(const FileManager& files, const QString& launcherRoot) {
    const QString path = launcherRoot + QLatin1Char('/') + QLatin1String(kFileName);
    if (const std::optional<double> kept = readPlace(files, path))
        return *kept;
    // Kept as written, so the first start and every later one see the same place.
    // Millionths of a percent, so the text written is exactly the place drawn.
    const QByteArray text = QByteArray::number(QRandomGenerator::system()->bounded(100000000u) / 1e6, 'f', 6);
    const double place = text.toDouble();
    try {
        files.writeAtomically(path, text + '\n');
    } catch (const std::exception& error) {
        qWarning().noquote() << "The rollout place could not be kept:" << error.what();
    }
    return place;
}

} // namespace RolloutPlace
