// zentho-release pack: turns a game build folder or a sealed launcher bundle into a release: the
// gzip tar archive, the manifest that names it and, with a key, the manifest's signature, ready
// to be published side by side.

#include "ChunkedRelease.h"
#include "PackOptions.h"
#include "PackedArchive.h"
#include "ReleaseCheck.h"
#include "ReleaseCommand.h"
#include "ReleaseFiles.h"
#include "ReleaseKeys.h"
#include "ReleaseOptions.h"
#include "ReleaseTree.h"

#include "archive/Archive.h"
#include "formats/CompressedChunkIndex.h"
#include "formats/ManifestExpiry.h"
#include "formats/ReleaseManifest.h"
#include "trust/ManifestSignature.h"

#include <Uuid.h>

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QUrl>

#include <cstdio>
#include <optional>
#include <string>

namespace {

const char kUsage[] =
    "usage: zentho-release pack --platform P --version V --executable E --url-base URL\n"
    "                           [--out DIR] [--force] [--dry-run] [--key PUBLIC_KEY]...\n"
    "                           [--sign-key KEY [--expires-in DAYS]]\n"
    "                           [--chunks STORE_DIR --chunks-url URL [--chunk-average BYTES]\n"
    "                            [--compressed-index] [--chunk-pack [--delta-from INDEX]]] SRC\n"
    "\n"
    "Packs a release and writes its manifest. Two kinds of release:\n"
    "  game      --platform macos-arm64: SRC is the build folder; its content becomes the top\n"
    "            level of the archive and E is the path of the game's executable inside it\n"
    "            (normally \"zentho\"; it must be an executable file).\n"
    "  launcher  --platform macos-launcher-arm64: SRC is the sealed X.app bundle folder, which\n"
    "            becomes the archive's one top-level entry, and E is its name, X.app. The bundle\n"
    "            must hold an executable Contents/MacOS/ZenthoLauncher, a seal made by\n"
    "            \"zentho-release sign-bundle\" (sign first, then pack) that verifies with a\n"
    "            --key file or else with a key this build's launcher trusts, and a\n"
    "            Contents/Info.json that says version V (the build writes it).\n"
    "\n"
    "Writes into DIR (default: the current folder, created if missing):\n"
    "  zentho-V-P.tar.gz      the archive (gzip tar, names sorted, owner and group 0)\n"
    "  P-manifest.json        {version, platform, url, sha256, executable}, where url is\n"
    "                         URL/zentho-V-P.tar.gz and sha256 the archive's lower-case digest\n"
    "  P-manifest.json.sig    with --sign-key: the Ed25519 signature of the manifest's exact\n"
    "                         bytes by the private key KEY; --expires-in DAYS adds the member\n"
    "                         \"expires\" (UTC), after which launchers refuse the manifest\n"
    "  zentho-V-P.chunks.json with --chunks: the chunk index, listing every entry of the\n"
    "                         archive (path, kind, mode, size, symlink target: for a launcher,\n"
    "                         X.app and everything in it) and each\n"
    "                         file's SHA-256 and content-defined chunks; every chunk the store\n"
    "                         lacks goes to STORE_DIR/ab/<sha256>.zst (zstd), and the manifest\n"
    "                         gains \"chunks\": {index: URL/zentho-V-P.chunks.json, sha256: the\n"
    "                         index's digest, store: the --chunks-url}. Keep STORE_DIR between\n"
    "                         releases: a later release adds only the chunks that changed\n"
    "  --chunk-average BYTES  chunks of about BYTES (a power of two from 4096 to 1048576; at\n"
    "                         least a quarter, at most four times as long) instead of 65536:\n"
    "                         smaller chunks make patches of scattered edits smaller and the\n"
    "                         index longer. Keep it from release to release: chunks cut to\n"
    "                         another size do not match the earlier release's\n"
    "  zentho-V-P.chunks.json.zst with --compressed-index: the same index as one zstd frame,\n"
    "                         about half its size; the manifest's \"chunks\" gains index_zst:\n"
    "                         its URL and index_zst_sha256: its digest. Launchers that know it\n"
    "                         fetch it instead of the JSON, the others the JSON\n"
    "  zentho-V-P.chunks.pack with --chunk-pack: every chunk of the build once, as the store\n"
    "                         keeps it, back to back in the order the index first names them,\n"
    "                         the index giving each one's stored length; the manifest's\n"
    "                         \"chunks\" gains pack: its URL. Launchers that know it ask for many\n"
    "                         chunks in one request by byte ranges (the server must answer\n"
    "                         multipart ranges, as nginx does), so far-away players install\n"
    "                         first releases and patches at their line's speed\n"
    "  --delta-from INDEX     with --chunk-pack: INDEX is the chunk index of the release players\n"
    "                         have now (its chunks in STORE_DIR); each new chunk of a file that\n"
    "                         release has too is also packed compressed against the chunks it\n"
    "                         replaces there, where that is much smaller, after every whole\n"
    "                         chunk, and the index names them. Launchers holding that release\n"
    "                         fetch the small deltas, the others the whole chunks\n"
    "and prints one line each: archive:, size: (bytes), sha256:, manifest:, and signature: and\n"
    "expires: when signed; with --chunks also index:, index sha256:, chunks: (in the build, new,\n"
    "already in the store) and new chunk bytes: (compressed, added to the store), with\n"
    "--compressed-index compressed index: and its size: compressed index bytes:, and with\n"
    "--chunk-pack pack: and pack bytes:, with --delta-from deltas: (how many, and their bytes).\n"
    "Existing\n"
    "files are kept unless --force is given (a stale signature is then removed). --dry-run makes\n"
    "every check and prints the same lines, the manifest's text after \"content: \", and writes\n"
    "nothing. Publish the result with \"zentho-release publish\".\n"
    "\n"
    "Refused: a version other than letters, digits and . _ + - (it names folders and files), a\n"
    "URL that is not http or https, names with control characters or that are not UTF-8,\n"
    "symlinks that point outside SRC, devices, pipes and sockets, DIR or STORE_DIR inside SRC, and\n"
    "with --chunks setuid, setgid and sticky modes (launchers refuse them in an index).\n";

std::runtime_error failure(const QString& message) {
    return std::runtime_error(message.toStdString());
}

// The earlier release's index that deltas are made against, or none when not asked for.
std::optional<ChunkIndex> readPreviousIndex(const QString& path) {
    if (path.isEmpty())
        return std::nullopt;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        throw failure(path + QStringLiteral(": cannot be read: ") + file.errorString());
    try {
        return ChunkIndex::decode(file.read(ChunkIndex::kMaxBytes + 1));
    } catch (const ChunkIndexError& error) {
        throw failure(path + QStringLiteral(": not a chunk index: ") + QString::fromUtf8(error.what()));
    }
}

// The game's executable must be there and runnable; the launcher would otherwise install a build
// it cannot start.
void checkGame(const PackOptions& options, const QString& source) {
    const QString executable = source + QLatin1Char('/') + options.executable;
    if (!QFileInfo::exists(executable))
        throw failure(executable + QStringLiteral(": the executable is missing"));
    if (!ReleaseFiles::isExecutableFile(executable))
        throw failure(executable + QStringLiteral(": not an executable file"));
    if (options.executable != QLatin1String("zentho"))
        std::fprintf(stderr,
                     "zentho-release pack: warning: the launcher's offline start and its list of "
                     "saved builds look only for \"zentho\", not \"%s\"\n",
                     qPrintable(options.executable));
}

void checkLauncherBundle(const PackOptions& options, const QString& source) {
    const QString name = QFileInfo(source).fileName();
    if (options.executable != name)
        throw UsageError("--executable must be the bundle's folder name \"" + name.toStdString() +
                         "\", not \"" + options.executable.toStdString() + "\"");
    if (!name.endsWith(QLatin1String(".app")) || options.executable.contains(QLatin1Char('/')))
        throw UsageError("a launcher release is an X.app bundle folder, not \"" +
                         name.toStdString() + "\"");
    // A launcher that sealed or named itself wrongly would be refused by every player's launcher,
    // or installed again on every start: both are caught here, before anything is written.
    ReleaseCheck::checkLauncherBundle(
        source, options.version, QStringLiteral("--version"),
        ReleaseKeys::chosen(options.sealKeys, ReleaseKeys::builtInSealKeys()));
}

// A folder pack writes into (--out, --chunks), made unless this is a dry run; refused inside the
// source, also once symlinks in its path are resolved.
QString folderToWrite(const char* option, const QString& path, const QString& source, bool dryRun) {
    const auto inside = [&source](const QString& folder) {
        return folder == source || folder.startsWith(source + QLatin1Char('/'));
    };
    const std::string refusal = std::string(option) + " must not be inside SRC";
    const QString absolute = QDir::cleanPath(QFileInfo(path).absoluteFilePath());
    if (inside(absolute))
        throw UsageError(refusal);
    if (dryRun && !QFileInfo(absolute).isDir())
        return absolute;
    if (!QDir().mkpath(path))
        throw failure(path + QStringLiteral(": cannot be created"));
    const QString folder = QFileInfo(path).canonicalFilePath();
    if (inside(folder))
        throw UsageError(refusal);
    return folder;
}

// Packs into a hidden name beside the final one and renames it into place only once tar has
// succeeded and the listing passes the launcher's own rule. A dry run only measures.
PackedArchive packArchive(const QString& archive, const QString& folder, const QStringList& members,
                          bool dryRun) {
    if (dryRun)
        return PackedArchive::make(folder, members, {});
    const QFileInfo target(archive);
    const QString partial = target.absolutePath() + QStringLiteral("/.") + target.fileName() +
                            QStringLiteral(".partial-") + QString::fromStdString(makeUpperUuid());
    PackedArchive packed;
    try {
        packed = PackedArchive::make(folder, members, partial);
        checkArchiveListing(runTar({QStringLiteral("-tzf"), partial}));
    } catch (...) {
        QFile::remove(partial);
        throw;
    }
    QFile::remove(archive);
    if (!QFile::rename(partial, archive)) {
        QFile::remove(partial);
        throw failure(archive + QStringLiteral(": cannot be written"));
    }
    return packed;
}

int runPack(const std::vector<std::string>& arguments) {
    const PackOptions options = PackOptions::parse(arguments);
    const bool launcher = options.platform == QLatin1String(ReleaseFiles::kLauncherPlatform);
    std::optional<Ed25519Key> signingKey;
    if (options.signKey) {
        signingKey = Ed25519Key::fromFile(*options.signKey);
        if (!signingKey->hasPrivateKey())
            throw std::runtime_error(*options.signKey + ": is a public key; signing needs the private key");
    }

    const QFileInfo sourceInfo(options.source);
    if (!sourceInfo.isDir())
        throw failure(options.source + QStringLiteral(": not a folder"));
    const QString source = sourceInfo.canonicalFilePath();
    if (launcher)
        checkLauncherBundle(options, source);
    else
        checkGame(options, source);
    if (const std::string problem = ReleaseTree::firstProblem(QFile::encodeName(source).toStdString());
        !problem.empty())
        throw std::runtime_error(problem);

    const QString out = folderToWrite("--out", options.out, source, options.dryRun);
    const QString store = options.chunkStore.isEmpty()
                              ? QString()
                              : folderToWrite("--chunks", options.chunkStore, source, options.dryRun);
    const QString archiveName = QStringLiteral("zentho-%1-%2.tar.gz").arg(options.version, options.platform);
    const QString archive = out + QLatin1Char('/') + archiveName;
    const QString indexName = QStringLiteral("zentho-%1-%2.chunks.json").arg(options.version, options.platform);
    const QString indexPath = out + QLatin1Char('/') + indexName;
    const QString compressedName = indexName + QStringLiteral(".zst");
    const QString compressedPath = out + QLatin1Char('/') + compressedName;
    const QString packName = QStringLiteral("zentho-%1-%2.chunks.pack").arg(options.version, options.platform);
    const QString packPath = out + QLatin1Char('/') + packName;
    const QString manifestPath = out + QLatin1Char('/') + options.platform + QStringLiteral("-manifest.json");
    const QString signaturePath = manifestPath + QStringLiteral(".sig");
    for (const QString& path : {archive, indexPath, compressedPath, packPath, manifestPath, signaturePath}) {
        if ((path == indexPath && store.isEmpty()) || (path == compressedPath && !options.compressedIndex) ||
            (path == packPath && !options.chunkPack))
            continue;
        if (!options.force && QFileInfo(path).exists())
            throw failure(path + QStringLiteral(" already exists; use --force to replace it"));
    }

    const PackedArchive packed =
        launcher ? packArchive(archive, sourceInfo.dir().canonicalPath(), {options.executable}, options.dryRun)
                 : packArchive(archive, source,
                               QDir(source).entryList(QDir::AllEntries | QDir::Hidden | QDir::System |
                                                          QDir::NoDotAndDotDot,
                                                      QDir::Name),
                               options.dryRun);

    ReleaseManifest manifest;
    manifest.version = options.version;
    manifest.platform = options.platform;
    manifest.url = QUrl(options.urlBase + QLatin1Char('/') + archiveName, QUrl::StrictMode);
    manifest.sha256 = packed.sha256;
    manifest.executable = options.executable;
    // Chunks and index go down after the archive and before the manifest that names them.
    std::optional<ChunkedRelease> chunked;
    if (!store.isEmpty()) {
        const std::optional<ChunkIndex> previous = readPreviousIndex(options.deltaFrom);
        chunked = ChunkedRelease::make(source, store, options.chunkSizes, options.dryRun,
                                       options.chunkPack ? packPath : QString(), launcher,
                                       previous ? &*previous : nullptr);
        if (!options.dryRun)
            ReleaseFiles::writeFileAtomically(indexPath, chunked->json);
        manifest.chunks = ReleaseChunks{QUrl(options.urlBase + QLatin1Char('/') + indexName, QUrl::StrictMode),
                                        chunked->sha256, QUrl(options.chunkStoreUrl, QUrl::StrictMode)};
        if (options.chunkPack)
            manifest.chunks->pack = QUrl(options.urlBase + QLatin1Char('/') + packName, QUrl::StrictMode);
    }
    QByteArray compressed;
    if (chunked && options.compressedIndex) {
        compressed = CompressedChunkIndex::compress(chunked->json);
        if (!options.dryRun)
            ReleaseFiles::writeFileAtomically(compressedPath, compressed);
        manifest.chunks->compressedIndex = QUrl(options.urlBase + QLatin1Char('/') + compressedName, QUrl::StrictMode);
        manifest.chunks->compressedSha256 = sha256Hex(compressed);
    }
    QByteArray json = manifest.encode();
    std::optional<QString> expires;
    if (options.expiresInDays) {
        expires = ManifestExpiry::text(
            QDateTime::currentDateTimeUtc().addDays(*options.expiresInDays));
        json.chop(1); // the closing brace; the extra member is read only by launchers that check
        json += ",\"expires\":\"" + expires->toUtf8() + "\"}";
    }
    json += '\n';
    if (!(ReleaseManifest::decode(json) == manifest))
        throw failure(QStringLiteral("the manifest does not read back as written"));
    const QByteArray signature =
        signingKey ? QByteArray::fromStdString(signingKey->sign(json.toStdString())) : QByteArray();

    // The signature goes down before the manifest it belongs to, and a stale one goes away.
    if (!options.dryRun) {
        if (signingKey)
            ReleaseFiles::writeFileAtomically(signaturePath, signature);
        else if (QFileInfo::exists(signaturePath) && !QFile::remove(signaturePath))
            throw failure(signaturePath + QStringLiteral(": cannot be removed"));
        ReleaseFiles::writeFileAtomically(manifestPath, json);
    }
    std::printf("archive: %s\nsize: %lld\nsha256: %s\nmanifest: %s\n", qPrintable(archive),
                static_cast<long long>(packed.size), qPrintable(packed.sha256), qPrintable(manifestPath));
    if (chunked) {
        std::printf("index: %s\nindex sha256: %s\nchunks: %lld (%lld new, %lld already in the store)\n"
                    "new chunk bytes: %lld (compressed, of %lld bytes in the build)\n",
                    qPrintable(indexPath), qPrintable(chunked->sha256), static_cast<long long>(chunked->chunks),
                    static_cast<long long>(chunked->added), static_cast<long long>(chunked->chunks - chunked->added),
                    static_cast<long long>(chunked->addedBytes), static_cast<long long>(chunked->buildBytes));
    }
    if (!compressed.isEmpty())
        std::printf("compressed index: %s\ncompressed index bytes: %lld (of %lld)\n", qPrintable(compressedPath),
                    static_cast<long long>(compressed.size()), static_cast<long long>(chunked->json.size()));
    if (options.chunkPack)
        std::printf("pack: %s\npack bytes: %lld\n", qPrintable(packPath), static_cast<long long>(chunked->packBytes));
    if (!options.deltaFrom.isEmpty())
        std::printf("deltas: %lld (%lld bytes)\n", static_cast<long long>(chunked->deltas),
                    static_cast<long long>(chunked->deltaBytes));
    if (signingKey)
        std::printf("signature: %s\n", qPrintable(signaturePath));
    if (expires)
        std::printf("expires: %s\n", qPrintable(*expires));
    if (options.dryRun)
        std::printf("content: %s" "dry run: nothing was written\n", json.constData());
    return 0;
}

} // namespace

const ReleaseCommand packCommand{"pack", "pack a game build or launcher bundle and write its manifest",
                                 kUsage, &runPack};
