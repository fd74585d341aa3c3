#include "ReleaseFiles.h"

#include "update/Archive.h"
#include "update/Sha256.h"

#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

#include <stdexcept>

#include <sys/stat.h>
#include <unistd.h>

namespace ReleaseFiles {

bool isKnownPlatform(const QString& platform) {
    return platform == QLatin1String(kGamePlatform) || platform == QLatin1String(kLauncherPlatform);
}

QString sha256OfFile(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        throw std::runtime_error(path.toStdString() + ": cannot be read: " +
                                 file.errorString().toStdString());
    Sha256 digest;
    QByteArray buffer(1 << 20, Qt::Uninitialized);
    for (;;) {
        const qint64 got = file.read(buffer.data(), buffer.size());
        if (got < 0)
            throw std::runtime_error(path.toStdString() + ": cannot be read: " +
                                     file.errorString().toStdString());
        if (got == 0)
            break;
        digest.update(buffer.constData(), std::size_t(got));
    }
    return digest.finishHex();
}

void writeFileAtomically(const QString& path, const QByteArray& bytes) {
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size() || !file.commit())
        throw std::runtime_error(path.toStdString() + ": cannot be written: " +
                                 file.errorString().toStdString());
    // QSaveFile creates the file 0600; what is published must be readable by the web server.
    ::chmod(QFile::encodeName(path).constData(), 0644);
}

bool isExecutableFile(const QString& path) {
    const QByteArray native = QFile::encodeName(path);
    struct stat info {};
    return ::stat(native.constData(), &info) == 0 && S_ISREG(info.st_mode) &&
           ::access(native.constData(), X_OK) == 0;
}

QString versionProblem(const QString& version) {
    if (version.isEmpty())
        return QStringLiteral("the version is empty");
    if (!version.at(0).isLetterOrNumber() || version.at(0).unicode() > 0x7f)
        return QStringLiteral("the version \"%1\" must start with a letter or digit").arg(version);
    for (const QChar c : version) {
        const bool plain = c.unicode() < 0x80 && (c.isLetterOrNumber() || c == QLatin1Char('.') ||
                                                  c == QLatin1Char('_') || c == QLatin1Char('+') ||
                                                  c == QLatin1Char('-'));
        if (!plain)
            return QStringLiteral("the version \"%1\" may hold only letters, digits and . _ + -")
                .arg(version);
    }
    return {};
}

QString relativePathProblem(const QString& relative) {
    if (relative.isEmpty())
        return QStringLiteral("the path is empty");
    if (relative.contains(QLatin1Char('\n')))
        return QStringLiteral("\"%1\" holds a line feed").arg(relative);
    try {
        checkArchiveListing(relative);
    } catch (const std::exception&) {
        return QStringLiteral("\"%1\" leads out of the archive").arg(relative);
    }
    return {};
}

} // namespace ReleaseFiles
