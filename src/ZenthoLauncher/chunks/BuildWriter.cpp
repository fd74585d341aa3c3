#include "chunks/BuildWriter.h"

#include "errors/Failure.h"
#include "trust/Sha256.h"

#include <QFile>
#include <unordered_set>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <exception>
#include <mutex>
#include <thread>
#include <utility>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

[[noreturn]] void fail(const std::string& path, const std::string& what) {
    throw ChunkAssemblyError(QString::fromStdString(path + ": " + what));
}

[[noreturn]] void failWithErrno(const std::string& path, const char* attempted) {
    fail(path, std::string(attempted) + ": " + std::strerror(errno));
}

// The umask, which cannot be read without setting it; /proc tells it without that race.
mode_t currentUmask() {
    QFile status(QStringLiteral("/proc/self/status"));
    if (status.open(QIODevice::ReadOnly)) {
        for (QByteArray line = status.readLine(); !line.isEmpty(); line = status.readLine()) {
            if (line.startsWith("Umask:"))
                return mode_t(line.mid(6).trimmed().toUInt(nullptr, 8));
        }
    }
    return 022;
}

// Reads chunks, keeping the last file open: a file's chunks mostly come from one file in a row.
class ChunkReader {
public:
    ~ChunkReader() { closeSource(); }

    void read(const ChunkLocation& at, qint64 size, std::vector<char>& into) {
        if (at.file != openPath_) {
            closeSource();
            fd_ = ::open(QFile::encodeName(at.file).constData(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
            if (fd_ < 0)
                failWithErrno(at.file.toStdString(), "cannot be read");
            openPath_ = at.file;
        }
        into.resize(std::size_t(size));
        std::size_t got = 0;
        while (got < into.size()) {
            const ssize_t n = ::pread(fd_, into.data() + got, into.size() - got, off_t(at.offset) + off_t(got));
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0)
                failWithErrno(at.file.toStdString(), "cannot be read");
            if (n == 0)
                fail(at.file.toStdString(), "ends before the chunk does");
            got += std::size_t(n);
        }
    }

private:
    void closeSource() {
        if (fd_ >= 0)
            ::close(fd_);
        fd_ = -1;
        openPath_.clear();
    }

    int fd_ = -1;
    QString openPath_;
};

void writeAll(int fd, const char* bytes, std::size_t size, const std::string& path) {
    while (size > 0) {
        const ssize_t n = ::write(fd, bytes, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            failWithErrno(path, "cannot be written");
        bytes += n;
        size -= std::size_t(n);
    }
}

// The access time is the install's, as tar leaves it; the modification time is the release's.
std::array<struct timespec, 2> timesFor(qint64 mtime) {
    return {timespec{0, UTIME_NOW}, timespec{time_t(mtime), 0}};
}

// Gives an open file the entry's mode and time and checks it is the file the entry describes.
void finishFile(int fd, const std::string& path, const ChunkIndexEntry& entry, mode_t umask) {
    const mode_t mode = mode_t(entry.mode) & ~umask;
    if (::fchmod(fd, mode) != 0)
        failWithErrno(path, "cannot take its mode");
    if (entry.mtime && ::futimens(fd, timesFor(*entry.mtime).data()) != 0)
        failWithErrno(path, "cannot take its modification time");
    struct stat info {};
    if (::fstat(fd, &info) != 0)
        failWithErrno(path, "cannot be checked");
    if (!S_ISREG(info.st_mode) || info.st_size != entry.size || (info.st_mode & 07777) != mode)
        fail(path, "is not the file the index describes");
}

// Writes files from their chunks, checking each against its entry. One per thread.
class FileWriter {
public:
    FileWriter(const QHash<QString, ChunkLocation>& locations, mode_t umask) : locations_(locations), umask_(umask) {}

    void file(const std::string& path, const ChunkIndexEntry& entry) {
        const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (fd < 0)
            failWithErrno(path, "cannot be made");
        try {
            Sha256 digest;
            for (const ChunkRef& chunk : entry.chunks) {
                const auto at = locations_.constFind(chunk.sha256);
                if (at == locations_.cend())
                    fail(path, "needs chunk " + chunk.sha256.toStdString() + ", which is nowhere");
                reader_.read(*at, chunk.size, buffer_);
                digest.update(buffer_.data(), buffer_.size());
                writeAll(fd, buffer_.data(), buffer_.size(), path);
            }
            finishFile(fd, path, entry, umask_);
            if (digest.finishHex() != entry.sha256)
                fail(path, "does not have the SHA-256 the index gives");
        } catch (...) {
            ::close(fd);
            throw;
        }
        if (::close(fd) != 0)
            failWithErrno(path, "cannot be written");
    }

private:
    const QHash<QString, ChunkLocation>& locations_;
    mode_t umask_;
    ChunkReader reader_;
    std::vector<char> buffer_;
};

// Removes whatever is at `path`, a folder with all it holds (whatever its modes), never
// following a symlink. Quiet when nothing is there.
void removeAt(const std::string& path) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0)
        return;
    if (S_ISDIR(info.st_mode)) {
        ::chmod(path.c_str(), 0700);
        if (DIR* dir = ::opendir(path.c_str())) {
            std::vector<std::string> names;
            while (const dirent* item = ::readdir(dir)) {
                const std::string name = item->d_name;
                if (name != "." && name != "..")
                    names.push_back(name);
            }
            ::closedir(dir);
            for (const std::string& name : names)
                removeAt(path + '/' + name);
        }
        if (::rmdir(path.c_str()) != 0)
            failWithErrno(path, "cannot be removed");
    } else if (::unlink(path.c_str()) != 0) {
        failWithErrno(path, "cannot be removed");
    }
}

// The file's SHA-256 when it is a plain file of `size` bytes; nothing otherwise.
std::optional<QString> digestOf(const std::string& path, qint64 size) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0)
        return std::nullopt;
    struct stat info {};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) || info.st_size != size) {
        ::close(fd);
        return std::nullopt;
    }
    Sha256 digest;
    std::vector<char> buffer(1 << 20);
    for (;;) {
        const ssize_t n = ::read(fd, buffer.data(), buffer.size());
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            ::close(fd);
            return std::nullopt;
        }
        if (n == 0)
            break;
        digest.update(buffer.data(), std::size_t(n));
    }
    ::close(fd);
    return digest.finishHex();
}

} // namespace

BuildWriter::BuildWriter(QString folder, Start start)
    : folder_(std::move(folder)), top_(QFile::encodeName(folder_).toStdString()), start_(start),
      // tar keeps an archive's modes exactly for root and takes the umask off for anyone else.
      umask_(::geteuid() == 0 ? 0 : currentUmask()) {}

std::string BuildWriter::pathOf(const ChunkIndexEntry& entry) const {
    return top_ + '/' + QFile::encodeName(entry.path).toStdString();
}

std::vector<const ChunkIndexEntry*> BuildWriter::makeTree(const ChunkIndex& index) {
    if (start_ == Start::resume)
        removeWhatIsNotOf(index);
    std::vector<const ChunkIndexEntry*> files;
    for (const ChunkIndexEntry& entry : index.entries) {
        switch (entry.kind) {
        case ChunkIndexEntry::Kind::folder:
            folder(entry);
            break;
        case ChunkIndexEntry::Kind::symlink:
            symlink(entry);
            break;
        case ChunkIndexEntry::Kind::file:
            if (start_ != Start::resume || !keepIfWhole(entry))
                files.push_back(&entry);
            break;
        }
    }
    return files;
}

void BuildWriter::folder(const ChunkIndexEntry& entry) {
    const std::string path = pathOf(entry);
    struct stat info {};
    if (start_ == Start::resume && ::lstat(path.c_str(), &info) == 0) {
        // Left by an earlier writer, maybe with its final mode already: writable again until the end.
        if (S_ISDIR(info.st_mode) && ::chmod(path.c_str(), 0700) == 0) {
            folders_.push_back({path, mode_t(entry.mode) & ~umask_, entry.mtime});
            return;
        }
        removeAt(path);
    }
    if (::mkdir(path.c_str(), 0700) != 0)
        failWithErrno(path, "cannot be made");
    folders_.push_back({path, mode_t(entry.mode) & ~umask_, entry.mtime});
}

void BuildWriter::symlink(const ChunkIndexEntry& entry) const {
    const std::string path = pathOf(entry);
    if (start_ == Start::resume)
        removeAt(path);
    const std::string target = QFile::encodeName(entry.target).toStdString();
    if (::symlink(target.c_str(), path.c_str()) != 0)
        failWithErrno(path, "cannot be made");
    std::string read(target.size() + 1, '\0');
    const ssize_t n = ::readlink(path.c_str(), read.data(), read.size());
    if (n < 0 || std::size_t(n) != target.size() || read.compare(0, target.size(), target) != 0)
        fail(path, "does not lead where the index says");
}

bool BuildWriter::keepIfWhole(const ChunkIndexEntry& entry) const {
    const std::string path = pathOf(entry);
    // Written front to back, a file reaches its size only with its last chunk; the digest also
    // catches a file someone else put there.
    if (digestOf(path, entry.size) != std::optional<QString>(entry.sha256)) {
        removeAt(path);
        return false;
    }
    const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0)
        failWithErrno(path, "cannot be checked");
    try {
        finishFile(fd, path, entry, umask_);
    } catch (...) {
        ::close(fd);
        throw;
    }
    ::close(fd);
    return true;
}

void BuildWriter::removeWhatIsNotOf(const ChunkIndex& index) const {
    std::unordered_set<std::string> known;
    for (const ChunkIndexEntry& entry : index.entries)
        known.insert(pathOf(entry));
    // Folders the index names are looked into; anything else the index does not name goes whole.
    std::vector<std::string> folders{top_};
    while (!folders.empty()) {
        const std::string folder = std::move(folders.back());
        folders.pop_back();
        ::chmod(folder.c_str(), 0700);
        std::vector<std::string> names;
        if (DIR* dir = ::opendir(folder.c_str())) {
            while (const dirent* item = ::readdir(dir)) {
                const std::string name = item->d_name;
                if (name != "." && name != "..")
                    names.push_back(folder + '/' + name);
            }
            ::closedir(dir);
        }
        for (const std::string& path : names) {
            struct stat info {};
            if (!known.contains(path))
                removeAt(path);
            else if (::lstat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode))
                folders.push_back(path);
        }
    }
}

void BuildWriter::writeFiles(const std::vector<const ChunkIndexEntry*>& files,
                             const QHash<QString, ChunkLocation>& locations) const {
    // Hashing and copying a build is bound by the processor, so up to four threads, the calling
    // one included, each writing a file from start to end.
    std::atomic<std::size_t> next{0};
    std::atomic<bool> failed{false};
    std::mutex failureLock;
    std::exception_ptr failure;
    const auto work = [&] {
        FileWriter writer(locations, umask_);
        while (!failed.load()) {
            const std::size_t i = next.fetch_add(1);
            if (i >= files.size())
                return;
            try {
                writer.file(pathOf(*files[i]), *files[i]);
            } catch (...) {
                const std::lock_guard lock(failureLock);
                if (!failure)
                    failure = std::current_exception();
                failed = true;
            }
        }
    };
    const unsigned helpers = std::min(std::max(std::thread::hardware_concurrency(), 1u), 4u) - 1;
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < helpers && i + 1 < files.size(); ++i)
        threads.emplace_back(work);
    work();
    for (std::thread& thread : threads)
        thread.join();
    if (failure)
        std::rethrow_exception(failure);
}

void BuildWriter::finishFolders() {
    // Innermost first, so that a folder without write permission is filled before it gets it; a
    // folder's time is set once everything in it is written, which would change it again.
    for (auto it = folders_.rbegin(); it != folders_.rend(); ++it) {
        const auto& [path, mode, mtime] = *it;
        struct stat info {};
        if (::chmod(path.c_str(), mode) != 0 || ::lstat(path.c_str(), &info) != 0)
            failWithErrno(path, "cannot take its mode");
        if (mtime && ::utimensat(AT_FDCWD, path.c_str(), timesFor(*mtime).data(), AT_SYMLINK_NOFOLLOW) != 0)
            failWithErrno(path, "cannot take its modification time");
        if (!S_ISDIR(info.st_mode) || (info.st_mode & 07777) != mode)
            fail(path, "is not the folder the index describes");
    }
}
