// zentho-release publish: lays packed releases out in a folder exactly as the release server
// serves them, in an order that never shows a launcher a manifest whose archive is not there yet.

#include "ReleaseCheck.h"
#include "ReleaseCommand.h"
#include "ReleaseFiles.h"
#include "ReleaseKeys.h"
#include "ReleaseOptions.h"

#include "formats/ChunkStore.h"
#include "storage/VersionOrder.h"

#include <QDir>
#include <QFileInfo>

#include <cstdio>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace {

const char kUsage[] =
    "usage: zentho-release publish --to DIR [--dry-run] [--allow-downgrade] [--key PUBLIC_KEY]...\n"
    "                              [--manifest-key PUBLIC_KEY]... [--chunks STORE_DIR] MANIFEST...\n"
    "\n"
    "Publishes the releases that \"zentho-release pack\" wrote (each MANIFEST with its archive,\n"
    "named by its url, and its MANIFEST.sig beside it) into DIR, laid out as the release server\n"
    "serves them from its document root:\n"
    "  DIR/release/P-manifest.json[.sig]   each release's manifest and signature\n"
    "  DIR/<path of the url>               each archive, e.g. DIR/release/zentho-V-P.tar.gz\n"
    "  DIR/<path of the chunks' index url> a release's chunk index, when it names chunks\n"
    "  DIR/<path of the store url>/ab/...  each chunk of its index, copied from STORE_DIR\n"
    "Every release is first checked as \"zentho-release verify\" does (same keys); nothing is\n"
    "written unless all pass (with --chunks, every chunk of every index too, and a game release\n"
    "that names no chunks is refused as \"verify --chunks\" refuses it; a release that names\n"
    "chunks needs --chunks). Then, in this order: every chunk the server lacks or holds\n"
    "damaged, every chunk index and every archive are copied in, then each\n"
    "release's signature and then its manifest replace the old ones. Each file is written under\n"
    "a hidden name, flushed to disk and renamed into place, so a reader never sees half a file\n"
    "and no manifest ever names an archive that is not in place. Archives of earlier releases\n"
    "stay: a launcher still downloading one keeps its file.\n"
    "\n"
    "Refused: an archive or chunk index already in DIR with other content (neither is ever\n"
    "replaced; pack under a new version), an unsigned manifest where a signed one is published,\n"
    "two manifests for one platform, a url whose path could leave DIR, and a version lower than\n"
    "the one published for its platform: every launcher installs whatever version its manifest\n"
    "names, so that would roll every player back. --allow-downgrade publishes it all the same,\n"
    "with a warning, for a rollback that is meant.\n"
    "Prints one line per file: chunks: (how many copied and kept), index:, archive:,\n"
    "signature:, manifest: (\"kept\" for a file that is already in place). --dry-run checks and\n"
    "prints, and writes nothing.\n";

struct Placement {
    CheckedRelease release;
    QString archive;   // in DIR
    QString manifest;  // in DIR
    QString signature; // in DIR
    bool archiveThere = false;
    // With chunks: the index in DIR, the store's folder in DIR and the chunks to lay out there.
    QString index;
    bool indexThere = false;
    QString store;
    std::vector<QString> chunks; // names of the chunks to copy, each once
    qint64 chunksKept = 0;       // sound chunks already there
};

// DIR + the url's path, where `what` ("an archive") is published; refused when the path could
// point anywhere else. A folder's url may end with "/"; a file's may not.
QString destination(const QString& root, const QUrl& url, const char* what, bool folder = false) {
    const QString path = url.path(QUrl::FullyDecoded);
    const QStringList parts = path.split(QLatin1Char('/'), Qt::SkipEmptyParts);
    if (!path.startsWith(QLatin1Char('/')) || parts.isEmpty() || (!folder && path.endsWith(QLatin1Char('/'))) ||
        parts.contains(QStringLiteral("..")) || parts.contains(QStringLiteral(".")) ||
        path.contains(QLatin1Char('\n')) || path.contains(QLatin1Char('\\')))
        throw std::runtime_error("the url " + url.toString().toStdString() +
                                 " has no path " + what + " can be published at");
    return root + QLatin1Char('/') + parts.join(QLatin1Char('/'));
}

// True when DIR already holds `path` with exactly the content named `sha256`, false when it
// holds nothing there; throws when it holds something else, which is never replaced.
bool alreadyPublished(const QString& path, const QString& sha256, const char* what) {
    const QFileInfo published(path);
    if (!published.exists())
        return false;
    if (!published.isFile() || ReleaseFiles::sha256OfFile(path) != sha256.toLower())
        throw std::runtime_error(path.toStdString() + " is already published with other content; a published " +
                                 what + " is never replaced (pack the release under a new version)");
    return true;
}

// A chunk already on the server is kept when it is sound; a damaged one is replaced by the
// store's, which has the same name and so the same content.
bool soundChunk(const QString& path, const ChunkRef& chunk) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return false;
    try {
        ChunkStore::decode(file.readAll(), chunk.size, chunk.sha256);
        return true;
    } catch (const ChunkStoreError&) {
        return false;
    }
}

ReleaseManifest readManifest(const QString& manifestPath) {
    try {
        return ReleaseManifest::decode(ReleaseFiles::readFile(manifestPath));
    } catch (const ManifestDecodingError& error) {
        throw CheckFailed("manifest", QString::fromUtf8(error.what()));
    }
}

// The version the release server now names for the platform whose manifest is at
// `publishedManifest`; nothing when none is published there, or what is there does not decode.
std::optional<QString> publishedVersion(const QString& publishedManifest) {
    if (!QFileInfo::exists(publishedManifest))
        return std::nullopt;
    try {
        return ReleaseManifest::decode(ReleaseFiles::readFile(publishedManifest)).version;
    } catch (const ManifestDecodingError&) {
        return std::nullopt;
    }
}

// A lower version than the published one is installed by every launcher all the same (the
// server's version always wins), which rolls every player back: refused unless meant.
void checkNotADowngrade(const Placement& placement, bool allowed) {
    const std::optional<QString> published = publishedVersion(placement.manifest);
    const QString& version = placement.release.manifest.version;
    if (!published || compareVersionsNumerically(version, *published) >= 0)
        return;
    const std::string what = placement.release.manifest.platform.toStdString() + " " +
                             version.toStdString() + " is lower than the published " +
                             published->toStdString() + "; every launcher would go back to it";
    if (!allowed)
        throw std::runtime_error(what + " (give --allow-downgrade to roll back on purpose)");
    std::fprintf(stderr, "zentho-release publish: warning: %s\n", what.c_str());
}

Placement place(const QString& root, const QString& manifestPath, const ReleaseCheckKeys& keys,
                const QString& chunkStore) {
    // The archive sits beside its manifest under the name its url gives it.
    const ReleaseManifest given = readManifest(manifestPath);
    if (given.chunks && chunkStore.isEmpty())
        throw UsageError(manifestPath.toStdString() + " names chunks; give --chunks STORE_DIR");
    Placement placement;
    // Under --chunks a game release is checked as "verify --chunks" checks it, which refuses one
    // that names no chunks (packed without them by mistake). A launcher release never has any.
    const bool checkChunks =
        given.chunks || given.platform == QLatin1String(ReleaseFiles::kGamePlatform);
    placement.release = ReleaseCheck::check(
        manifestPath,
        QFileInfo(manifestPath).absolutePath() + QLatin1Char('/') + given.url.fileName(), keys,
        ReleaseChunkFiles{QString(), checkChunks ? chunkStore : QString()});
    const ReleaseManifest& manifest = placement.release.manifest;
    placement.manifest = root + QStringLiteral("/release/") + manifest.platform + QStringLiteral("-manifest.json");
    placement.signature = placement.manifest + QStringLiteral(".sig");
    placement.archive = destination(root, manifest.url, "an archive");
    if (placement.archive == placement.manifest || placement.archive == placement.signature)
        throw std::runtime_error("the url " + manifest.url.toString().toStdString() +
                                 " names the manifest's own place");
    placement.archiveThere = alreadyPublished(placement.archive, manifest.sha256, "archive");
    if (manifest.chunks) {
        placement.index = destination(root, manifest.chunks->index, "a chunk index");
        placement.store = destination(root, manifest.chunks->store, "a chunk store", true);
        if (placement.index == placement.manifest || placement.index == placement.signature ||
            placement.index == placement.archive)
            throw std::runtime_error("the chunk index's url " + manifest.chunks->index.toString().toStdString() +
                                     " names the place of another file of the release");
        placement.indexThere = alreadyPublished(placement.index, manifest.chunks->sha256, "chunk index");
        std::set<QString> names;
        for (const ChunkIndexEntry& entry : placement.release.index->entries) {
            for (const ChunkRef& chunk : entry.chunks) {
                if (names.insert(chunk.sha256).second && !soundChunk(placement.store + QLatin1Char('/') +
                                                                         ChunkStore::relativePath(chunk.sha256),
                                                                     chunk))
                    placement.chunks.push_back(chunk.sha256);
            }
        }
        placement.chunksKept = qint64(names.size() - placement.chunks.size());
    }
    if (!placement.release.signaturePath && QFileInfo::exists(placement.signature))
        throw std::runtime_error(placement.manifest.toStdString() +
                                 " is published signed and " + manifestPath.toStdString() +
                                 " is not; launchers that require signed manifests would refuse "
                                 "it (pack with --sign-key)");
    return placement;
}

int runPublish(const std::vector<std::string>& arguments) {
    const ReleaseOptions options(arguments, {"--to", "--key", "--manifest-key", "--chunks"},
                                 {"--dry-run", "--allow-downgrade"});
    const QString chunkStore = QString::fromStdString(options.one("--chunks").value_or(std::string()));
    const QString to = QString::fromStdString(options.required("--to", "DIR"));
    if (options.operands().empty())
        throw UsageError("give at least one MANIFEST");
    const ReleaseCheckKeys keys{
        ReleaseKeys::chosen(options.all("--key"), ReleaseKeys::builtInSealKeys()),
        ReleaseKeys::chosen(options.all("--manifest-key"), ReleaseKeys::builtInManifestKeys())};
    const QString root = QDir::cleanPath(QFileInfo(to).absoluteFilePath());

    std::set<QString> platforms;
    for (const std::string& manifest : options.operands()) {
        const QString platform = readManifest(QString::fromStdString(manifest)).platform;
        if (!platforms.insert(platform).second)
            throw UsageError("two manifests for " + platform.toStdString());
    }
    // Everything is checked before the first byte is written.
    std::vector<Placement> placements;
    for (const std::string& manifest : options.operands())
        placements.push_back(place(root, QString::fromStdString(manifest), keys, chunkStore));
    for (const Placement& placement : placements)
        checkNotADowngrade(placement, options.has("--allow-downgrade"));
    const bool dryRun = options.has("--dry-run");

    // What a manifest names must be in place before the manifest: chunks before the index that
    // lists them, the index before the archive and the manifest.
    for (const Placement& placement : placements) {
        if (!placement.release.indexPath)
            continue;
        for (const QString& chunk : placement.chunks) {
            if (!dryRun)
                ReleaseFiles::copyFileDurably(chunkStore + QLatin1Char('/') + ChunkStore::relativePath(chunk),
                                              placement.store + QLatin1Char('/') + ChunkStore::relativePath(chunk));
        }
        std::printf("chunks: %s (%lld copied, %lld kept)\n", qPrintable(placement.store),
                    static_cast<long long>(placement.chunks.size()), static_cast<long long>(placement.chunksKept));
        if (!dryRun && !placement.indexThere)
            ReleaseFiles::copyFileDurably(*placement.release.indexPath, placement.index);
        std::printf("index: %s%s\n", qPrintable(placement.index), placement.indexThere ? " (kept)" : "");
    }
    for (const Placement& placement : placements) {
        if (!dryRun && !placement.archiveThere)
            ReleaseFiles::copyFileDurably(placement.release.archivePath, placement.archive);
        std::printf("archive: %s%s\n", qPrintable(placement.archive), placement.archiveThere ? " (kept)" : "");
    }
    for (const Placement& placement : placements) {
        if (placement.release.signaturePath) {
            if (!dryRun)
                ReleaseFiles::copyFileDurably(*placement.release.signaturePath, placement.signature);
            std::printf("signature: %s\n", qPrintable(placement.signature));
        }
        if (!dryRun)
            ReleaseFiles::copyFileDurably(placement.release.manifestPath, placement.manifest);
        std::printf("manifest: %s\n", qPrintable(placement.manifest));
    }
    if (dryRun)
        std::printf("dry run: nothing was written\n");
    return 0;
}

} // namespace

const ReleaseCommand publishCommand{"publish", "lay releases out as the server serves them, manifests last",
                                    kUsage, &runPublish};
