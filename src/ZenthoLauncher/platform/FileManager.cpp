#include "platform/FileManager.h"

#include "errors/FileError.h"

#include <TemporaryFolder.h>
#include <Uuid.h>

#include <QDir>
#include <QFileInfo>

#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

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

// Removes `name` in the folder `dirFd` and, for a folder, everything below it, never following
// a link. A folder that forbids writing or entering (an archive may make one) is opened up
// first: it is ours to remove. Returns 0 or the errno of the first failure.
int removeTreeAt(int dirFd, const char* name) {
    struct stat info {};
    if (::fstatat(dirFd, name, &info, AT_SYMLINK_NOFOLLOW) != 0)
        return errno;
    if (!S_ISDIR(info.st_mode))
        return ::unlinkat(dirFd, name, 0) == 0 ? 0 : errno;
    if ((info.st_mode & 0700) != 0700)
        ::fchmodat(dirFd, name, (info.st_mode & 07777) | 0700, 0);
    const int fd = ::openat(dirFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0)
        return errno;
    DIR* dir = ::fdopendir(fd);
    if (!dir) {
        const int err = errno;
        ::close(fd);
        return err;
    }
    // Names first, removal after: the folder is not changed under a running listing.
    std::vector<std::string> children;
    while (const dirent* entry = ::readdir(dir)) {
        const std::string child = entry->d_name;
        if (child != "." && child != "..")
            children.push_back(child);
    }
    int firstError = 0;
    for (const std::string& child : children) {
        const int err = removeTreeAt(fd, child.c_str());
        if (err != 0 && firstError == 0)
            firstError = err;
    }
    ::closedir(dir);
    if (firstError != 0)
        return firstError;
    return ::unlinkat(dirFd, name, AT_REMOVEDIR) == 0 ? 0 : errno;
}

std::optional<QByteArray> realPathOf(const QByteArray& path) {
    char* resolved = ::realpath(path.constData(), nullptr);
    if (!resolved)
        return std::nullopt;
    QByteArray result(resolved);
    std::free(resolved);
    return result;
}

} // namespace

std::optional<QString> FileManager::resolvedInside(const QString& folder, const QString& path) const {
    const std::optional<QByteArray> root = realPathOf(native(folder));
    const std::optional<QByteArray> target = realPathOf(native(path));
    if (!root || !target || !target->startsWith(*root + '/'))
        return std::nullopt;
    return QFile::decodeName(*target);
}

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
        // The entry itself: a link to a folder is a link, not a folder. Most file systems say
        // which it is in the listing; the others are asked, one entry at a time.
        if (item->d_type != DT_UNKNOWN) {
            entry.isDirectory = item->d_type == DT_DIR;
        } else {
            struct stat info {};
            if (::fstatat(dirFd, item->d_name, &info, AT_SYMLINK_NOFOLLOW) == 0)
                entry.isDirectory = S_ISDIR(info.st_mode);
        }
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

void FileManager::exchangeItems(const QString& a, const QString& b) const {
    if (::renameat2(AT_FDCWD, native(a).constData(), AT_FDCWD, native(b).constData(), RENAME_EXCHANGE) != 0)
        throwFileError(QStringLiteral("could not exchange %1 and %2").arg(a, b));
    syncFolder(parentOf(a));
    syncFolder(parentOf(b));
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
    if (const int err = removeTreeAt(AT_FDCWD, native(path).constData()))
        throwFileError(QStringLiteral("could not remove %1").arg(path), err);
}

std::optional<QString> FileManager::regularFileInside(const QString& folder,
                                                      const QString& path) const {
    const std::optional<QString> resolved = resolvedInside(folder, path);
    struct stat info {};
    if (!resolved || ::lstat(native(*resolved).constData(), &info) != 0 || !S_ISREG(info.st_mode))
        return std::nullopt;
    return resolved;
}

bool FileManager::isRealFolderInside(const QString& folder, const QString& path) const {
    struct stat info {};
    return ::lstat(native(path).constData(), &info) == 0 && S_ISDIR(info.st_mode) &&
           resolvedInside(folder, path).has_value();
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
        abandon(error.code(), QStringLiteral("could not write %1").arg(path));
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
