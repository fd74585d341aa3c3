#include "FileManager.h"

#include "FileError.h"

#include <TemporaryFolder.h>
#include <Uuid.h>

#include <QDir>
#include <QFileInfo>

#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <pwd.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

QByteArray native(const QString& path) {
    return QFile::encodeName(path);
}

QString fromEnv(const char* name) {
    const char* value = std::getenv(name);
    return value ? QFile::decodeName(value) : QString();
}

QString parentOf(const QString& path) {
    return QFileInfo(path).absolutePath();
}

// Makes a rename in `folder` durable: the entry change itself is only on disk once the folder
// has been flushed.
void syncFolder(const QString& folder) {
    const int fd = ::open(native(folder).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        throwFileError(QStringLiteral("could not open %1").arg(folder));
    const int rc = ::fsync(fd);
    const int err = errno;
    ::close(fd);
    if (rc != 0)
        throwFileError(QStringLiteral("could not flush %1").arg(folder), err);
}

void writeAll(int fd, const QByteArray& bytes, const QString& path) {
    const char* data = bytes.constData();
    qsizetype left = bytes.size();
    while (left > 0) {
        const ssize_t n = ::write(fd, data, static_cast<size_t>(left));
        if (n < 0) {
            if (errno == EINTR)
                continue;
            throwFileError(QStringLiteral("could not write %1").arg(path));
        }
        data += n;
        left -= n;
    }
}

int removeEntry(const char* path, const struct stat*, int, struct FTW*) {
    return ::remove(path);
}

} // namespace

FileManager& FileManager::defaultManager() {
    static FileManager manager;
    return manager;
}

QStringList FileManager::applicationSupportFolders() const {
    const QString xdg = fromEnv("XDG_DATA_HOME");
    if (QDir::isAbsolutePath(xdg))
        return {QDir::cleanPath(xdg)};
    const QString home = fromEnv("HOME");
    if (QDir::isAbsolutePath(home))
        return {QDir::cleanPath(home + QStringLiteral("/.local/share"))};
    return {};
}

QString FileManager::homeFolderForCurrentUser() const {
    if (const passwd* entry = ::getpwuid(::getuid()); entry && entry->pw_dir && *entry->pw_dir)
        return QDir::cleanPath(QFile::decodeName(entry->pw_dir));
    return QStringLiteral("/");
}

QString FileManager::temporaryDirectory() const {
    return QFile::decodeName(temporaryFolder().c_str());
}

bool FileManager::fileExists(const QString& path) const {
    struct stat info {};
    return ::stat(native(path).constData(), &info) == 0;
}

bool FileManager::isExecutableFile(const QString& path) const {
    struct stat info {};
    const QByteArray p = native(path);
    return ::stat(p.constData(), &info) == 0 && !S_ISDIR(info.st_mode) &&
           ::access(p.constData(), X_OK) == 0;
}

bool FileManager::isWritableFile(const QString& path) const {
    return ::access(native(path).constData(), W_OK) == 0;
}

QList<FileManager::Entry> FileManager::contentsOfDirectory(const QString& path) const {
    DIR* dir = ::opendir(native(path).constData());
    if (!dir)
        throwFileError(QStringLiteral("could not list %1").arg(path));
    QList<Entry> entries;
    const int dirFd = ::dirfd(dir);
    while (const dirent* item = ::readdir(dir)) {
        if (item->d_name[0] == '.')
            continue;
        Entry entry{QFile::decodeName(item->d_name), std::nullopt};
        struct stat info {};
        // The entry itself: a link to a folder is a link, not a folder.
        if (::fstatat(dirFd, item->d_name, &info, AT_SYMLINK_NOFOLLOW) == 0)
            entry.isDirectory = S_ISDIR(info.st_mode);
        entries.append(entry);
    }
    ::closedir(dir);
    return entries;
}

void FileManager::createDirectory(const QString& path) const {
    const QString clean = QDir::cleanPath(path);
    struct stat info {};
    if (::stat(native(clean).constData(), &info) == 0) {
        if (S_ISDIR(info.st_mode))
            return;
        throwFileError(QStringLiteral("could not create the folder %1").arg(clean), EEXIST);
    }
    if (clean != parentOf(clean))
        createDirectory(parentOf(clean));
    if (::mkdir(native(clean).constData(), 0777) != 0 && errno != EEXIST)
        throwFileError(QStringLiteral("could not create the folder %1").arg(clean));
}

void FileManager::setPosixPermissions(const QString& path, unsigned int mode) const {
    if (::chmod(native(path).constData(), mode) != 0)
        throwFileError(QStringLiteral("could not set the permissions of %1").arg(path));
}

void FileManager::moveItem(const QString& from, const QString& to) const {
    const QByteArray source = native(from);
    const QByteArray target = native(to);
    if (::renameat2(AT_FDCWD, source.constData(), AT_FDCWD, target.constData(),
                    RENAME_NOREPLACE) == 0) {
        syncFolder(parentOf(to));
        return;
    }
    // Some file systems cannot refuse to replace by themselves; look first, then rename.
    if (errno == EINVAL || errno == ENOSYS) {
        struct stat info {};
        if (::lstat(target.constData(), &info) == 0)
            throwFileError(QStringLiteral("could not move %1 to %2").arg(from, to), EEXIST);
        if (::rename(source.constData(), target.constData()) == 0) {
            syncFolder(parentOf(to));
            return;
        }
    }
    throwFileError(QStringLiteral("could not move %1 to %2").arg(from, to));
}

void FileManager::replaceItem(const QString& original, const QString& with) const {
    struct stat info {};
    if (::lstat(native(original).constData(), &info) != 0)
        throwFileError(QStringLiteral("could not replace %1").arg(original));
    if (::rename(native(with).constData(), native(original).constData()) != 0)
        throwFileError(QStringLiteral("could not replace %1 with %2").arg(original, with));
    syncFolder(parentOf(original));
}

void FileManager::removeItem(const QString& path) const {
    const QByteArray p = native(path);
    struct stat info {};
    if (::lstat(p.constData(), &info) != 0)
        throwFileError(QStringLiteral("could not remove %1").arg(path));
    const int rc = S_ISDIR(info.st_mode)
                       ? ::nftw(p.constData(), removeEntry, 32, FTW_DEPTH | FTW_PHYS)
                       : ::unlink(p.constData());
    if (rc != 0)
        throwFileError(QStringLiteral("could not remove %1").arg(path));
}

QByteArray FileManager::readFile(const QString& path) const {
    const int fd = ::open(native(path).constData(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        throwFileError(QStringLiteral("could not read %1").arg(path));
    QByteArray bytes;
    char buffer[64 * 1024];
    for (;;) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            const int err = errno;
            ::close(fd);
            throwFileError(QStringLiteral("could not read %1").arg(path), err);
        }
        if (n == 0)
            break;
        bytes.append(buffer, n);
    }
    ::close(fd);
    return bytes;
}

void FileManager::writeAtomically(const QString& path, const QByteArray& bytes) const {
    const QString folder = parentOf(path);
    const QString temporary = folder + QStringLiteral("/.") + QFileInfo(path).fileName() +
                              QLatin1Char('.') + QString::fromStdString(makeUpperUuid());
    const int fd = ::open(native(temporary).constData(),
                          O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0)
        throwFileError(QStringLiteral("could not write %1").arg(path));
    const auto abandon = [&](int err, const QString& attempted) {
        ::unlink(native(temporary).constData());
        throwFileError(attempted, err);
    };
    try {
        writeAll(fd, bytes, path);
    } catch (const FileError& error) {
        ::close(fd);
        abandon(error.code().value(), QStringLiteral("could not write %1").arg(path));
    }
    if (::fsync(fd) != 0) {
        const int err = errno;
        ::close(fd);
        abandon(err, QStringLiteral("could not flush %1").arg(path));
    }
    if (::close(fd) != 0)
        abandon(errno, QStringLiteral("could not write %1").arg(path));
    if (::rename(native(temporary).constData(), native(path).constData()) != 0) {
        const int err = errno;
        ::unlink(native(temporary).constData());
        throwFileError(QStringLiteral("could not write %1").arg(path), err);
    }
    syncFolder(folder);
}
