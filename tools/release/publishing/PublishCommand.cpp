// zentho-release publish: lays packed releases out in a folder, or on a remote through rclone,
// exactly as the release server serves them, in an order that never shows a launcher a manifest
// whose archive is not there yet.

#include "PublishTarget.h"
#include "ReleaseCheck.h"
#include "ReleaseCommand.h"
#include "ReleaseFiles.h"
#include "ReleaseKeys.h"
#include "ReleaseOptions.h"

#include "formats/ChunkStore.h"
#include "storage/VersionOrder.h"

#include <ProcessCapture.h>

#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>

#include <cstdio>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace {

// Where a launcher bundle states the public keys its verifier trusts.
const char kTrustedSealKeys[] = "Contents/Resources/trusted-seal-keys.pem";

const char kUsage[] =
    "usage: zentho-release publish (--to DIR | --to-remote REMOTE [--rclone PROGRAM]) [--dry-run]\n"
    "                              [--allow-downgrade] [--key PUBLIC_KEY]... [--manifest-key PUBLIC_KEY]...\n"
    "                              [--chunks STORE_DIR] MANIFEST...\n"
    "\n"
    "Publishes the releases that \"zentho-release pack\" wrote (each MANIFEST with its archive,\n"
    "named by its url, and its MANIFEST.sig beside it) into DIR, laid out as the release server\n"
    "serves them from its document root:\n"
    "  DIR/release/P-manifest.json[.sig]   each release's manifest and signature\n"
    "  DIR/<path of the url>               each archive, e.g. DIR/release/zentho-V-P.tar.gz\n"
    "  DIR/<path of the chunks' index url> a release's chunk index, when it names chunks, and\n"
    "                                      its compressed index (index_zst) and its chunk\n"
    "                                      pack (pack) when it names them\n"
    "  DIR/<path of the store url>/ab/...  each chunk of its index, copied from STORE_DIR\n"
    "Every release is first checked as \"zentho-release verify\" does (same keys); nothing is\n"
    "written unless all pass (with --chunks, every chunk of every index too, and a game release\n"
    "that names no chunks is refused as \"verify --chunks\" refuses it; a release that names\n"
    "chunks needs --chunks). Then, in this order: every chunk the server lacks or holds\n"
    "damaged, every chunk pack and index and every archive are copied in, then each\n"
    "release's signature and then its manifest replace the old ones. Each file is written under\n"
    "a hidden name, flushed to disk and renamed into place, so a reader never sees half a file\n"
    "and no manifest ever names an archive that is not in place. Archives of earlier releases\n"
    "stay: a launcher still downloading one keeps its file.\n"
    "\n"
    "Refused: an archive or chunk index already in DIR with other content, and a release of the\n"
    "version published for its platform with other content under any url (neither is ever\n"
    "replaced; pack under a new version, and for a launcher build it again with that version\n"
    "first), an unsigned manifest where a signed one is published,\n"
    "two manifests for one platform, a url whose path could leave DIR, and a version lower than\n"
    "the one published for its platform: every launcher installs whatever version its manifest\n"
    "names, so that would roll every player back. --allow-downgrade publishes it all the same,\n"
    "with a warning, for a rollback that is meant.\n"
    "With --to-remote REMOTE (\"name:path\" as rclone spells it: an S3, R2, GCS or B2 bucket,\n"
    "WebDAV, SFTP...) the same files go there in the same order, each by one rclone upload\n"
    "(rclone from PATH, or --rclone PROGRAM, with its own configuration). A chunk already there\n"
    "with its store file's size is kept; an archive or index already there is read back once to\n"
    "compare. A publish that fails part-way leaves the old manifests in place; run it again to\n"
    "finish.\n"
    "A launcher release's seal is checked with the keys the launcher published in DIR trusts (its\n"
    "bundle states them in Contents/Resources/trusted-seal-keys.pem), since those are what\n"
    "players' launchers check it with; with no launcher published there, or one that states none,\n"
    "with this build's keys; --key checks with the keys given instead.\n"
    "Prints one line per file: chunks: (how many copied and kept), compressed index:, index:,\n"
    "archive:,\n"
    "signature:, manifest: (\"kept\" for a file that is already in place). --dry-run checks and\n"
    "prints, and writes nothing.\n";

struct Placement {
    CheckedRelease release;
    // Where each file goes, relative to the document root.
    QString archive;
    QString manifest;
    QString signature;
    // What the server names for the platform now, if anything (read once, before any write).
    std::optional<ReleaseManifest> published;
    bool archiveThere = false;
    // With chunks: the index, the store's folder and the chunks to lay out there.
    QString index;
    bool indexThere = false;
    QString compressedIndex; // empty when the release has none
    bool compressedIndexThere = false;
    QString pack; // empty when the release has none
    bool packThere = false;
    QString store;
    std::vector<QString> chunks; // names of the chunks to copy, each once
    qint64 chunksKept = 0;       // sound chunks already there
};

// The url's path relative to the document root, where `what` ("an archive") is published;
// refused when the path could point anywhere else. A folder's url may end with "/"; a file's may not.
QString destination(const QUrl& url, const char* what, bool folder = false) {
    const QString path = url.path(QUrl::FullyDecoded);
    const QStringList parts = path.split(QLatin1Char('/'), Qt::SkipEmptyParts);
    if (!path.startsWith(QLatin1Char('/')) || parts.isEmpty() || (!folder && path.endsWith(QLatin1Char('/'))) ||
        parts.contains(QStringLiteral("..")) || parts.contains(QStringLiteral(".")) ||
        path.contains(QLatin1Char('\n')) || path.contains(QLatin1Char('\\')))
        throw std::runtime_error("the url " + url.toString().toStdString() +
                                 " has no path " + what + " can be published at");
    return parts.join(QLatin1Char('/'));
}

// What to do instead of replacing a published release of `platform`. A launcher's version is
// built into it (pack checks its Info.json), so a new one means a new build.
std::string underANewVersion(const QString& platform) {
    return platform == QLatin1String(ReleaseFiles::kLauncherPlatform)
               ? "build the launcher again with a new -DZENTHO_LAUNCHER_VERSION, then seal and pack that"
               : "pack the release under a new version";
}

// True when the target already holds `path` with exactly the content named `sha256`, false when
// it holds nothing there; throws when it holds something else, which is never replaced.
bool alreadyPublished(PublishTarget& target, const QString& path, const QString& sha256, const char* what,
                      const QString& platform) {
    const std::optional<QString> published = target.sha256(path);
    if (!published)
        return false;
    if (*published != sha256.toLower())
        throw std::runtime_error(target.name(path).toStdString() +
                                 " is already published with other content; a published " + what +
                                 " is never replaced (" + underANewVersion(platform) + ")");
    return true;
}

ReleaseManifest readManifest(const QString& manifestPath) {
    try {
        return ReleaseManifest::decode(ReleaseFiles::readFile(manifestPath));
    } catch (const ManifestDecodingError& error) {
        throw CheckFailed("manifest", QString::fromUtf8(error.what()));
    }
}

// The release the server now names for the platform whose manifest is at `publishedManifest`;
// nothing when none is published there, or what is there does not decode.
std::optional<ReleaseManifest> publishedRelease(PublishTarget& target, const QString& publishedManifest) {
    const std::optional<QByteArray> published = target.read(publishedManifest);
    if (!published)
        return std::nullopt;
    try {
        return ReleaseManifest::decode(*published);
    } catch (const ManifestDecodingError&) {
        return std::nullopt;
    }
}

// Checks a release against the one published for its platform. The same version with other
// content is refused whatever its url: launchers that have that version never take the new
// content, and the rest get a build that differs from their friends' under the same name. A
// lower version is installed by every launcher all the same (the server's version always wins),
// which rolls every player back: refused unless meant.
void checkAgainstPublished(const Placement& placement, bool downgradeAllowed) {
    const std::optional<ReleaseManifest>& published = placement.published;
    if (!published)
        return;
    const ReleaseManifest& manifest = placement.release.manifest;
    const std::string release = manifest.platform.toStdString() + " " + manifest.version.toStdString();
    if (published->version == manifest.version && published->sha256.toLower() != manifest.sha256.toLower())
        throw std::runtime_error(release + " is already published with other content; a published release is "
                                           "never replaced (" + underANewVersion(manifest.platform) + ")");
    if (compareVersionsNumerically(manifest.version, published->version) >= 0)
        return;
    const std::string what = release + " is lower than the published " + published->version.toStdString() +
                             "; every launcher would go back to it";
    if (!downgradeAllowed)
        throw std::runtime_error(what + " (give --allow-downgrade to roll back on purpose)");
    std::fprintf(stderr, "zentho-release publish: warning: %s\n", what.c_str());
}

// The seal keys of the launcher `published` on the target, as its bundle states them (in the
// file the build writes from its verifier's keys); nothing when its bundle states none.
std::optional<TrustedKeys> publishedLauncherKeys(PublishTarget& target, const ReleaseManifest& published) {
    QTemporaryDir scratch;
    if (!scratch.isValid())
        throw std::runtime_error("cannot make a temporary folder");
    const std::optional<QString> archive = target.localCopy(destination(published.url, "an archive"), scratch.path());
    if (!archive)
        return std::nullopt;
    const CapturedProcessResult stated = ProcessCapture::run(
        "/bin/tar", {"-xzOf", QFile::encodeName(*archive).toStdString(), "--",
                     QFile::encodeName(published.executable).toStdString() + "/" + kTrustedSealKeys});
    if (stated.status != 0 || stated.output.empty())
        return std::nullopt;
    try {
        return TrustedKeys::fromPem(stated.output);
    } catch (const KeyError&) {
        return std::nullopt;
    }
}

Placement place(PublishTarget& target, const QString& manifestPath, ReleaseCheckKeys keys,
                bool sealKeysGiven, const QString& chunkStore) {
    // The archive sits beside its manifest under the name its url gives it.
    const ReleaseManifest given = readManifest(manifestPath);
    Placement placement;
    placement.manifest = QStringLiteral("release/") + given.platform + QStringLiteral("-manifest.json");
    // Only a known platform names a place on the server; the check below refuses any other.
    if (ReleaseFiles::isKnownPlatform(given.platform))
        placement.published = publishedRelease(target, placement.manifest);
    // The launchers in players' hands check the next launcher's seal with the keys they trust,
    // not with this tool's: a bundle they would refuse must not go out.
    std::optional<TrustedKeys> publishedKeys;
    if (given.platform == QLatin1String(ReleaseFiles::kLauncherPlatform) && !sealKeysGiven && placement.published)
        publishedKeys = publishedLauncherKeys(target, *placement.published);
    if (publishedKeys)
        keys.seal = *publishedKeys;
    if (given.chunks && chunkStore.isEmpty())
        throw UsageError(manifestPath.toStdString() + " names chunks; give --chunks STORE_DIR");
    // Under --chunks a game release is checked as "verify --chunks" checks it, which refuses one
    // that names no chunks (packed without them by mistake). A launcher release never has any.
    const bool checkChunks =
        given.chunks || given.platform == QLatin1String(ReleaseFiles::kGamePlatform);
    try {
        placement.release = ReleaseCheck::check(
            manifestPath, QFileInfo(manifestPath).absolutePath() + QLatin1Char('/') + given.url.fileName(), keys,
            ReleaseChunkFiles{QString(), checkChunks ? chunkStore : QString()});
    } catch (const CheckFailed& failed) {
        if (!publishedKeys || std::string(failed.what()).rfind("seal: ", 0) != 0)
            throw;
        throw std::runtime_error(std::string(failed.what()) +
                                 " (checked with the keys the published launcher trusts: launchers would "
                                 "refuse it; seal it with one of them, or give --key to check with others)");
    }
    const ReleaseManifest& manifest = placement.release.manifest;
    placement.signature = placement.manifest + QStringLiteral(".sig");
    placement.archive = destination(manifest.url, "an archive");
    if (placement.archive == placement.manifest || placement.archive == placement.signature)
        throw std::runtime_error("the url " + manifest.url.toString().toStdString() +
                                 " names the manifest's own place");
    placement.archiveThere = alreadyPublished(target, placement.archive, manifest.sha256, "archive", manifest.platform);
    if (manifest.chunks) {
        placement.index = destination(manifest.chunks->index, "a chunk index");
        placement.store = destination(manifest.chunks->store, "a chunk store", true);
        if (placement.index == placement.manifest || placement.index == placement.signature ||
            placement.index == placement.archive)
            throw std::runtime_error("the chunk index's url " + manifest.chunks->index.toString().toStdString() +
                                     " names the place of another file of the release");
        placement.indexThere = alreadyPublished(target, placement.index, manifest.chunks->sha256, "chunk index",
                                                 manifest.platform);
        if (manifest.chunks->compressedIndex.isValid()) {
            placement.compressedIndex = destination(manifest.chunks->compressedIndex, "a chunk index");
            if (placement.compressedIndex == placement.manifest || placement.compressedIndex == placement.signature ||
                placement.compressedIndex == placement.archive || placement.compressedIndex == placement.index)
                throw std::runtime_error("the compressed index's url " +
                                         manifest.chunks->compressedIndex.toString().toStdString() +
                                         " names the place of another file of the release");
            placement.compressedIndexThere = alreadyPublished(target, placement.compressedIndex,
                                                              manifest.chunks->compressedSha256,
                                                              "chunk index", manifest.platform);
        }
        if (manifest.chunks->pack.isValid()) {
            placement.pack = destination(manifest.chunks->pack, "a chunk pack");
            if (placement.pack == placement.manifest || placement.pack == placement.signature ||
                placement.pack == placement.archive || placement.pack == placement.index ||
                placement.pack == placement.compressedIndex)
                throw std::runtime_error("the chunk pack's url " + manifest.chunks->pack.toString().toStdString() +
                                         " names the place of another file of the release");
            placement.packThere = alreadyPublished(target, placement.pack,
                                                   placement.release.packSha256,
                                                   "chunk pack", manifest.platform);
        }
        std::set<QString> names;
        for (const ChunkIndexEntry& entry : placement.release.index->entries) {
            for (const ChunkRef& chunk : entry.chunks) {
                const QString relative = ChunkStore::relativePath(chunk.sha256);
                if (names.insert(chunk.sha256).second &&
                    !target.holdsChunk(placement.store + QLatin1Char('/') + relative,
                                       chunkStore + QLatin1Char('/') + relative, chunk.size, chunk.sha256))
                    placement.chunks.push_back(relative);
            }
        }
        placement.chunksKept = qint64(names.size() - placement.chunks.size());
    }
    if (!placement.release.signaturePath && target.read(placement.signature))
        throw std::runtime_error(target.name(placement.manifest).toStdString() +
                                 " is published signed and " + manifestPath.toStdString() +
                                 " is not; launchers that require signed manifests would refuse "
                                 "it (pack with --sign-key)");
    return placement;
}

int runPublish(const std::vector<std::string>& arguments) {
    const ReleaseOptions options(arguments, {"--to", "--to-remote", "--rclone", "--key", "--manifest-key", "--chunks"},
                                 {"--dry-run", "--allow-downgrade"});
    const QString chunkStore = QString::fromStdString(options.one("--chunks").value_or(std::string()));
    const std::optional<std::string> to = options.one("--to");
    const std::optional<std::string> remote = options.one("--to-remote");
    if (to.has_value() == remote.has_value())
        throw UsageError("give either --to DIR or --to-remote REMOTE");
    if (options.one("--rclone") && !remote)
        throw UsageError("--rclone goes with --to-remote");
    if (options.operands().empty())
        throw UsageError("give at least one MANIFEST");
    const bool sealKeysGiven = !options.all("--key").empty();
    const ReleaseCheckKeys keys{
        ReleaseKeys::chosen(options.all("--key"), ReleaseKeys::builtInSealKeys()),
        ReleaseKeys::chosen(options.all("--manifest-key"), ReleaseKeys::builtInManifestKeys())};

    std::set<QString> platforms;
    for (const std::string& manifest : options.operands()) {
        const QString platform = readManifest(QString::fromStdString(manifest)).platform;
        if (!platforms.insert(platform).second)
            throw UsageError("two manifests for " + platform.toStdString());
    }
    const std::unique_ptr<PublishTarget> target =
        to ? PublishTarget::folder(QDir::cleanPath(QFileInfo(QString::fromStdString(*to)).absoluteFilePath()))
           : PublishTarget::rclone(QString::fromStdString(*remote),
                                   QString::fromStdString(options.one("--rclone").value_or("rclone")));
    // Everything is checked before the first byte is written.
    std::vector<Placement> placements;
    for (const std::string& manifest : options.operands())
        placements.push_back(place(*target, QString::fromStdString(manifest), keys, sealKeysGiven, chunkStore));
    for (const Placement& placement : placements)
        checkAgainstPublished(placement, options.has("--allow-downgrade"));
    const bool dryRun = options.has("--dry-run");

    // What a manifest names must be in place before the manifest: chunks before the index that
    // lists them, the index before the archive and the manifest.
    for (const Placement& placement : placements) {
        if (!placement.release.indexPath)
            continue;
        if (!dryRun)
            target->putAll(chunkStore, placement.chunks, placement.store);
        std::printf("chunks: %s (%lld copied, %lld kept)\n", qPrintable(target->name(placement.store)),
                    static_cast<long long>(placement.chunks.size()), static_cast<long long>(placement.chunksKept));
        if (placement.release.compressedIndexPath) {
            if (!dryRun && !placement.compressedIndexThere)
                target->put(*placement.release.compressedIndexPath, placement.compressedIndex);
            std::printf("compressed index: %s%s\n", qPrintable(target->name(placement.compressedIndex)),
                        placement.compressedIndexThere ? " (kept)" : "");
        }
        if (placement.release.packPath) {
            if (!dryRun && !placement.packThere)
                target->put(*placement.release.packPath, placement.pack);
            std::printf("pack: %s%s\n", qPrintable(target->name(placement.pack)), placement.packThere ? " (kept)" : "");
        }
        if (!dryRun && !placement.indexThere)
            target->put(*placement.release.indexPath, placement.index);
        std::printf("index: %s%s\n", qPrintable(target->name(placement.index)), placement.indexThere ? " (kept)" : "");
    }
    for (const Placement& placement : placements) {
        if (!dryRun && !placement.archiveThere)
            target->put(placement.release.archivePath, placement.archive);
        std::printf("archive: %s%s\n", qPrintable(target->name(placement.archive)),
                    placement.archiveThere ? " (kept)" : "");
    }
    for (const Placement& placement : placements) {
        if (placement.release.signaturePath) {
            if (!dryRun)
                target->put(*placement.release.signaturePath, placement.signature);
            std::printf("signature: %s\n", qPrintable(target->name(placement.signature)));
        }
        if (!dryRun)
            target->put(placement.release.manifestPath, placement.manifest);
        std::printf("manifest: %s\n", qPrintable(target->name(placement.manifest)));
    }
    if (dryRun)
        std::printf("dry run: nothing was written\n");
    return 0;
}

} // namespace

const ReleaseCommand publishCommand{"publish", "lay releases out as the server serves them (a folder or a remote), manifests last",
                                    kUsage, &runPublish};
