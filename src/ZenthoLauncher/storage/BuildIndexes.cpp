#include "storage/BuildIndexes.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

namespace {

// Far above any index a launcher accepts; only guards against reading something huge that
// should not be there.
constexpr qint64 kLargestKept = qint64(64) << 20;

} // namespace

BuildIndexes::BuildIndexes(QString launcherRoot) : path_(launcherRoot + QStringLiteral("/indexes")) {}

// Named after the build folder's path, so that any version text, "/" included, makes one plain
// file name.
QString BuildIndexes::fileFor(const QString& buildFolder, const QString& suffix) const {
    return path_ + QLatin1Char('/') +
           QString::fromLatin1(QCryptographicHash::hash(buildFolder.toUtf8(), QCryptographicHash::Sha256).toHex()) +
           suffix;
}

std::optional<QByteArray> BuildIndexes::read(const QString& buildFolder) const {
    return readKept(fileFor(buildFolder), buildFolder);
}

std::optional<QUrl> BuildIndexes::readStore(const QString& buildFolder) const {
    return readSource(buildFolder, 0);
}

std::optional<QUrl> BuildIndexes::readPack(const QString& buildFolder) const {
    return readSource(buildFolder, 1);
}

std::optional<QUrl> BuildIndexes::readSource(const QString& buildFolder, int line) const {
    const std::optional<QByteArray> text = readKept(fileFor(buildFolder, QStringLiteral(".store")), buildFolder);
    if (!text)
        return std::nullopt;
    const QList<QByteArray> lines = text->split('\n');
    if (line >= lines.size())
        return std::nullopt;
    const QUrl url(QString::fromUtf8(lines[line].trimmed()), QUrl::StrictMode);
    return url.isValid() && !url.isRelative() ? std::optional(url) : std::nullopt;
}

bool BuildIndexes::writeStore(const QString& buildFolder, const QUrl& store, const QUrl& pack) const {
    QSaveFile file(fileFor(buildFolder, QStringLiteral(".store")));
    if (!QDir().mkpath(path_) || !file.open(QIODevice::WriteOnly))
        return false;
    file.write(buildFolder.toUtf8() + '\n' + store.toString(QUrl::FullyEncoded).toUtf8() + '\n');
    if (pack.isValid())
        file.write(pack.toString(QUrl::FullyEncoded).toUtf8() + '\n');
    return file.commit();
}

std::optional<QByteArray> BuildIndexes::readKept(const QString& path, const QString& buildFolder) const {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly) || file.size() > kLargestKept)
        return std::nullopt;
    // The first line names the build, so that indexes of builds that are gone can be told apart.
    const QByteArray bytes = file.readAll();
    const qsizetype lineEnd = bytes.indexOf('\n');
    if (lineEnd < 0 || bytes.left(lineEnd) != buildFolder.toUtf8())
        return std::nullopt;
    return bytes.mid(lineEnd + 1);
}

bool BuildIndexes::write(const QString& buildFolder, const QByteArray& index) const {
    if (!QDir().mkpath(path_))
        return false;
    for (const QString& name : QDir(path_).entryList(QDir::Files | QDir::Hidden)) {
        QFile kept(path_ + QLatin1Char('/') + name);
        QByteArray folder;
        if (kept.open(QIODevice::ReadOnly))
            folder = kept.readLine(4096);
        kept.close();
        while (folder.endsWith('\n'))
            folder.chop(1);
        if (folder.isEmpty() || !QFileInfo::exists(QString::fromUtf8(folder)))
            QFile::remove(kept.fileName());
    }
    QSaveFile file(fileFor(buildFolder));
    if (!file.open(QIODevice::WriteOnly))
        return false;
    file.write(buildFolder.toUtf8() + '\n');
    file.write(index);
    return file.commit();
}
