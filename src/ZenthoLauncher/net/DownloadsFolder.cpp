#include "net/DownloadsFolder.h"

#include "platform/FileManager.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>

#include <optional>

namespace {

const QString kArchiveSuffix = QStringLiteral(".part");
const QString kValidatorSuffix = QStringLiteral(".validator");

const QRegularExpression& digestPattern() {
    static const QRegularExpression pattern(QStringLiteral("^[0-9a-f]{64}$"));
    return pattern;
}

// KIND-DIGEST.part or KIND-DIGEST.validator: the kind, the base name and whether it is the
// archive; nothing for any other name.
struct OwnName {
    QString kind;
    QString base;
    bool archive = false;
};
std::optional<OwnName> parse(const QString& name) {
    static const QRegularExpression pattern(
        QStringLiteral("^(([a-z0-9-]+)-[0-9a-f]{64})(\\.part|\\.validator)$"));
    const QRegularExpressionMatch match = pattern.match(name);
    if (!match.hasMatch())
        return std::nullopt;
    return OwnName{match.captured(2), match.captured(1), match.captured(3) == kArchiveSuffix};
}

} // namespace

DownloadsFolder::DownloadsFolder(const FileManager& files, QString launcherRoot)
    : files_(files), path_(launcherRoot + QStringLiteral("/downloads")) {}

QString DownloadsFolder::baseName(const QString& kind, const QString& sha256) {
    QString digest = sha256.toLower();
    if (!digestPattern().match(digest).hasMatch()) {
        digest = QString::fromLatin1(
            QCryptographicHash::hash(sha256.toUtf8(), QCryptographicHash::Sha256).toHex());
    }
    return kind + QLatin1Char('-') + digest;
}

DownloadsFolder::Partial DownloadsFolder::prepare(const QString& kind,
                                                  const QString& sha256) const {
    files_.createDirectory(path_);
    const QString base = baseName(kind, sha256);
    const QStringList names = QDir(path_).entryList(QDir::AllEntries | QDir::Hidden | QDir::System |
                                                    QDir::NoDotAndDotDot);
    for (const QString& name : names) {
        const std::optional<OwnName> own = parse(name);
        if (own && own->kind == kind && own->base != base)
            remove(name);
    }
    return {path_ + QLatin1Char('/') + base + kArchiveSuffix,
            path_ + QLatin1Char('/') + base + kValidatorSuffix};
}

void DownloadsFolder::removeStale() const {
    const QFileInfoList entries = QDir(path_).entryInfoList(QDir::AllEntries | QDir::Hidden |
                                                            QDir::System | QDir::NoDotAndDotDot);
    const auto present = [&](const QString& name) {
        return QFileInfo(path_ + QLatin1Char('/') + name).isFile();
    };
    for (const QFileInfo& entry : entries) {
        const QString name = entry.fileName();
        const std::optional<OwnName> own = parse(name);
        const bool resumable =
            own && entry.isFile() && !entry.isSymLink() &&
            present(own->base + (own->archive ? kValidatorSuffix : kArchiveSuffix));
        if (!resumable)
            remove(name);
    }
}

void DownloadsFolder::removeIfEmpty() const {
    QDir().rmdir(path_); // refused while anything is in it
}

void DownloadsFolder::remove(const QString& name) const {
    // A file that cannot be removed now is tried again at the next start; it must not stop
    // the download that is about to run.
    try {
        files_.removeItem(path_ + QLatin1Char('/') + name);
    } catch (const std::exception&) {
    }
}
