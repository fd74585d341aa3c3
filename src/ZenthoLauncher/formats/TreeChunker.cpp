#include "formats/TreeChunker.h"

#include "errors/Failure.h"
#include "trust/Sha256.h"

#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace TreeChunker {

namespace {

ChunkIndexError failure(const std::string& path, const std::string& what) {
    return ChunkIndexError(path + ": " + what);
}

std::vector<std::string> sortedNames(const std::string& folder) {
    DIR* dir = ::opendir(folder.c_str());
    if (!dir)
        throw failure(folder, std::string("cannot be read: ") + std::strerror(errno));
    std::vector<std::string> names;
    errno = 0;
    while (const dirent* item = ::readdir(dir)) {
        if (std::strcmp(item->d_name, ".") != 0 && std::strcmp(item->d_name, "..") != 0)
            names.emplace_back(item->d_name);
    }
    const int err = errno;
    ::closedir(dir);
    if (err != 0)
        throw failure(folder, std::string("cannot be read: ") + std::strerror(err));
    std::sort(names.begin(), names.end());
    return names;
}

// Whole seconds, as tar keeps them; a time before 1970 is left out, as no release means it.
std::optional<qint64> mtimeOf(const struct stat& info) {
    return info.st_mtim.tv_sec >= 0 ? std::optional<qint64>(info.st_mtim.tv_sec) : std::nullopt;
}

class Walk {
public:
    Walk(const ChunkSizes& sizes, const OnChunk& onChunk) : chunker_(sizes), onChunk_(onChunk) {}

    ChunkIndex index;

    void folder(const std::string& absolute, const std::string& relative) {
        for (const std::string& name : sortedNames(absolute)) {
            const std::string path = absolute + '/' + name;
            const std::string inside = relative.empty() ? name : relative + '/' + name;
            struct stat info {};
            if (::lstat(path.c_str(), &info) != 0)
                throw failure(path, std::string("cannot be read: ") + std::strerror(errno));
            ChunkIndexEntry entry;
            entry.path = QString::fromStdString(inside);
            if (S_ISLNK(info.st_mode)) {
                entry.kind = ChunkIndexEntry::Kind::symlink;
                std::string target(std::size_t(info.st_size) + 1, '\0');
                const ssize_t got = ::readlink(path.c_str(), target.data(), target.size());
                if (got < 0 || std::size_t(got) >= target.size())
                    throw failure(path, "cannot be read");
                target.resize(std::size_t(got));
                entry.target = QString::fromStdString(target);
                index.entries.push_back(std::move(entry));
            } else if (S_ISDIR(info.st_mode)) {
                entry.kind = ChunkIndexEntry::Kind::folder;
                entry.mode = int(info.st_mode & 07777);
                entry.mtime = mtimeOf(info);
                index.entries.push_back(std::move(entry));
                folder(path, inside);
            } else if (S_ISREG(info.st_mode)) {
                entry.kind = ChunkIndexEntry::Kind::file;
                entry.mode = int(info.st_mode & 07777);
                entry.mtime = mtimeOf(info);
                file(path, entry);
                index.entries.push_back(std::move(entry));
            } else {
                throw failure(path, "not a file, folder or symlink");
            }
        }
    }

private:
    ContentChunker chunker_;
    const OnChunk& onChunk_;

    void file(const std::string& path, ChunkIndexEntry& entry) {
        const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
        if (fd < 0)
            throw failure(path, std::string("cannot be read: ") + std::strerror(errno));
        Sha256 whole;
        try {
            chunker_.chunkFile(fd, [&](std::uint64_t offset, const unsigned char* data, std::size_t size) {
                const char* bytes = reinterpret_cast<const char*>(data);
                whole.update(bytes, size);
                Sha256 piece;
                piece.update(bytes, size);
                entry.chunks.push_back(ChunkRef{piece.finishHex(), qint64(size)});
                entry.size += qint64(size);
                if (onChunk_)
                    onChunk_(entry, entry.chunks.back(), offset, data, size);
            });
        } catch (const std::system_error& error) {
            ::close(fd);
            throw failure(path, std::string("cannot be read: ") + error.code().message());
        } catch (...) {
            ::close(fd);
            throw;
        }
        ::close(fd);
        entry.sha256 = whole.finishHex();
    }
};

} // namespace

ChunkIndex index(const QString& root, const ChunkSizes& sizes, const OnChunk& onChunk) {
    Walk walk(sizes, onChunk);
    walk.index.chunking = sizes;
    walk.folder(QFile::encodeName(root).toStdString(), std::string());
    return std::move(walk.index);
}

ChunkIndex indexWithTop(const QString& folder, const ChunkSizes& sizes, const OnChunk& onChunk) {
    const std::string path = QFile::encodeName(folder).toStdString();
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0 || !S_ISDIR(info.st_mode))
        throw failure(path, "not a folder");
    ChunkIndexEntry top;
    top.path = QFileInfo(folder).fileName();
    top.kind = ChunkIndexEntry::Kind::folder;
    top.mode = int(info.st_mode & 07777);
    top.mtime = mtimeOf(info);
    Walk walk(sizes, onChunk);
    walk.index.chunking = sizes;
    walk.index.entries.push_back(top);
    walk.folder(path, top.path.toStdString());
    return std::move(walk.index);
}

} // namespace TreeChunker
