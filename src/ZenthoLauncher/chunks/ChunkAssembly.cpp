#include "chunks/ChunkAssembly.h"

#include "trust/Sha256.h"

#include <QFile>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <exception>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

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
            const mode_t mode = mode_t(entry.mode) & ~umask_;
            if (::fchmod(fd, mode) != 0)
                failWithErrno(path, "cannot take its mode");
            if (entry.mtime && ::futimens(fd, timesFor(*entry.mtime).data()) != 0)
                failWithErrno(path, "cannot take its modification time");
            struct stat info {};
            if (::fstat(fd, &info) != 0)
                failWithErrno(path, "cannot be checked");
            if (!S_ISREG(info.st_mode) || info.st_size != entry.size || (info.st_mode & 07777) != mode)
                fail(path, "is not the file the index describes");
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

// Folders and symlinks, made before any file so that every file's folder is there.
class TreeWriter {
public:
    explicit TreeWriter(mode_t umask) : umask_(umask) {}

    void folder(const std::string& path, const ChunkIndexEntry& entry) {
        if (::mkdir(path.c_str(), 0700) != 0)
            failWithErrno(path, "cannot be made");
        folders_.push_back({path, mode_t(entry.mode) & ~umask_, entry.mtime});
    }

    static void symlink(const std::string& path, const ChunkIndexEntry& entry) {
        const std::string target = QFile::encodeName(entry.target).toStdString();
        if (::symlink(target.c_str(), path.c_str()) != 0)
            failWithErrno(path, "cannot be made");
        std::string read(target.size() + 1, '\0');
        const ssize_t n = ::readlink(path.c_str(), read.data(), read.size());
        if (n < 0 || std::size_t(n) != target.size() || read.compare(0, target.size(), target) != 0)
            fail(path, "does not lead where the index says");
    }

    // Innermost first, so that a folder without write permission is filled before it gets it.
    void finishFolders() {
        // A folder's time is set once everything in it is written, which would change it again.
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

private:
    mode_t umask_;
    struct Folder {
        std::string path;
        mode_t mode;
        std::optional<qint64> mtime;
    };
    std::vector<Folder> folders_;
};

// Writes `files` on up to four threads, the calling one included: hashing and copying a build
// is bound by the processor, and each file is written by one thread from start to end. The
// first failure stops the others from starting another file and is thrown.
void writeFiles(const std::vector<std::pair<std::string, const ChunkIndexEntry*>>& files,
                const QHash<QString, ChunkLocation>& locations, mode_t umask) {
    std::atomic<std::size_t> next{0};
    std::atomic<bool> failed{false};
    std::mutex failureLock;
    std::exception_ptr failure;
    const auto work = [&] {
        FileWriter writer(locations, umask);
        while (!failed.load()) {
            const std::size_t i = next.fetch_add(1);
            if (i >= files.size())
                return;
            try {
                writer.file(files[i].first, *files[i].second);
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

} // namespace

void assembleBuild(const ChunkIndex& index, const QHash<QString, ChunkLocation>& locations, const QString& staging) {
    const std::string top = QFile::encodeName(staging).toStdString();
    // tar keeps an archive's modes exactly for root and takes the umask off for anyone else.
    const mode_t umask = ::geteuid() == 0 ? 0 : currentUmask();
    TreeWriter tree(umask);
    std::vector<std::pair<std::string, const ChunkIndexEntry*>> files;
    for (const ChunkIndexEntry& entry : index.entries) {
        std::string path = top + '/' + QFile::encodeName(entry.path).toStdString();
        switch (entry.kind) {
        case ChunkIndexEntry::Kind::folder:
            tree.folder(path, entry);
            break;
        case ChunkIndexEntry::Kind::symlink:
            TreeWriter::symlink(path, entry);
            break;
        case ChunkIndexEntry::Kind::file:
            files.emplace_back(std::move(path), &entry);
            break;
        }
    }
    writeFiles(files, locations, umask);
    tree.finishFolders();
}
