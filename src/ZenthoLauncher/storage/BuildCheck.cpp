#include "storage/BuildCheck.h"

#include "trust/Sha256.h"

#include <QDirIterator>
#include <QFile>
#include <QSet>

#include <optional>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using Kind = ChunkIndexEntry::Kind;

bool isOfKind(const struct stat& info, Kind kind) {
    switch (kind) {
    case Kind::file:
        return S_ISREG(info.st_mode);
    case Kind::folder:
        return S_ISDIR(info.st_mode);
    case Kind::symlink:
        return S_ISLNK(info.st_mode);
    }
    return false;
}

QString linkTarget(const QByteArray& path) {
    char buffer[4096];
    const ssize_t length = ::readlink(path.constData(), buffer, sizeof buffer);
    return length < 0 ? QString() : QFile::decodeName(QByteArray(buffer, int(length)));
}

// The file's SHA-256, read through without following a symlink put in its place; empty when it
// cannot be read.
QString digestOf(const QByteArray& path) {
    const int fd = ::open(path.constData(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0)
        return {};
    Sha256 digest;
    static thread_local char buffer[1 << 20];
    ssize_t got = 0;
    while ((got = ::read(fd, buffer, sizeof buffer)) > 0)
        digest.update(buffer, std::size_t(got));
    ::close(fd);
    return got < 0 ? QString() : digest.finishHex();
}

// Umasks take group and other bits at install time, so only the owner's are the build's own.
constexpr mode_t kOwnerBits = 0700;

std::optional<BuildDamage::Kind> damageOf(const QString& folder, const ChunkIndexEntry& entry,
                                          BuildCheckDepth depth, const QString& executable) {
    const QByteArray path = QFile::encodeName(folder + QLatin1Char('/') + entry.path);
    struct stat info {};
    if (::lstat(path.constData(), &info) != 0)
        return BuildDamage::Kind::missing;
    if (!isOfKind(info, entry.kind))
        return BuildDamage::Kind::kind;
    if (entry.kind == Kind::file && info.st_size != entry.size)
        return BuildDamage::Kind::size;
    if (depth == BuildCheckDepth::quick)
        return std::nullopt;
    if (entry.kind == Kind::symlink)
        return linkTarget(path) == entry.target ? std::nullopt : std::optional(BuildDamage::Kind::target);
    const mode_t compared = entry.path == executable ? (kOwnerBits & ~S_IXUSR) : kOwnerBits;
    if ((info.st_mode & compared) != (mode_t(entry.mode) & compared))
        return BuildDamage::Kind::mode;
    if (entry.kind == Kind::file && digestOf(path) != entry.sha256)
        return BuildDamage::Kind::content;
    return std::nullopt;
}

} // namespace

QString BuildDamage::what() const {
    switch (kind) {
    case Kind::missing:
        return QStringLiteral("missing");
    case Kind::kind:
        return QStringLiteral("replaced by another kind of entry");
    case Kind::size:
        return QStringLiteral("changed size");
    case Kind::mode:
        return QStringLiteral("changed permissions");
    case Kind::target:
        return QStringLiteral("points elsewhere");
    case Kind::content:
        return QStringLiteral("changed content");
    case Kind::extra:
        return QStringLiteral("not part of the build");
    }
    return {};
}

std::vector<BuildDamage> checkBuild(const QString& folder, const ChunkIndex& index, BuildCheckDepth depth,
                                    const QString& executable) {
    std::vector<BuildDamage> damage;
    QSet<QString> listed;
    for (const ChunkIndexEntry& entry : index.entries) {
        listed.insert(entry.path);
        if (const std::optional<BuildDamage::Kind> kind = damageOf(folder, entry, depth, executable))
            damage.push_back({entry.path, *kind});
    }
    if (depth == BuildCheckDepth::quick)
        return damage;
    // What the build holds beyond its index, found without following symlinks out of it.
    QDirIterator it(folder, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System,
                    QDirIterator::Subdirectories);
    QStringList extra;
    while (it.hasNext()) {
        const QString relative = it.next().mid(folder.size() + 1);
        if (!listed.contains(relative))
            extra.append(relative);
    }
    extra.sort();
    for (const QString& path : extra)
        damage.push_back({path, BuildDamage::Kind::extra});
    return damage;
}
