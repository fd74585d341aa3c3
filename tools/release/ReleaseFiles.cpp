#include "ReleaseFiles.h"

#include "archive/Archive.h"
#include "trust/Sha256.h"

#include <Uuid.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include <fcntl.h>
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

QByteArray readFile(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        throw std::runtime_error(path.toStdString() + ": cannot be read: " +
                                 file.errorString().toStdString());
    return file.readAll();
}

namespace {

std::runtime_error cannotWrite(const QString& path, int err) {
    return std::runtime_error(path.toStdString() + ": cannot be written: " + std::strerror(err));
}

// Makes the folder entry of a rename in `folder` reach the disk.
void syncFolder(const QString& folder) {
    const int fd = ::open(QFile::encodeName(folder).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        ::fsync(fd);
        ::close(fd);
    }
}

} // namespace

void copyFileDurably(const QString& from, const QString& to) {
    const QFileInfo target(to);
    const QString folder = target.absolutePath();
    if (!QDir().mkpath(folder))
        throw std::runtime_error(folder.toStdString() + ": cannot be created");
    const QString partial = folder + QStringLiteral("/.") + target.fileName() +
                            QStringLiteral(".partial-") + QString::fromStdString(makeUpperUuid());
    QFile source(from);
    if (!source.open(QIODevice::ReadOnly))
        throw std::runtime_error(from.toStdString() + ": cannot be read: " +
                                 source.errorString().toStdString());
    const int fd = ::open(QFile::encodeName(partial).constData(),
                          O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0)
        throw cannotWrite(to, errno);
    int err = ::fchmod(fd, 0644) == 0 ? 0 : errno;
    QByteArray buffer(1 << 20, Qt::Uninitialized);
    while (err == 0) {
        const qint64 got = source.read(buffer.data(), buffer.size());
        if (got < 0) {
            ::close(fd);
            ::unlink(QFile::encodeName(partial).constData());
            throw std::runtime_error(from.toStdString() + ": cannot be read: " +
                                     source.errorString().toStdString());
        }
        if (got == 0)
            break;
        for (qint64 done = 0; done < got && err == 0;) {
            const ssize_t wrote = ::write(fd, buffer.constData() + done, std::size_t(got - done));
            if (wrote < 0 && errno != EINTR)
                err = errno;
            else if (wrote > 0)
                done += wrote;
        }
    }
    if (err == 0 && ::fsync(fd) != 0)
        err = errno;
    if (::close(fd) != 0 && err == 0)
        err = errno;
    if (err == 0 && ::rename(QFile::encodeName(partial).constData(), QFile::encodeName(to).constData()) != 0)
        err = errno;
    if (err != 0) {
        ::unlink(QFile::encodeName(partial).constData());
        throw cannotWrite(to, err);
    }
    syncFolder(folder);
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
