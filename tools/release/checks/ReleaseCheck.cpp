#include "ReleaseCheck.h"

#include "BundlePortability.h"
#include "ChunkCheck.h"
#include "ReleaseCommand.h"
#include "ReleaseFiles.h"

#include "archive/Archive.h"
#include "errors/LauncherError.h"
#include "formats/BundleInfo.h"
#include "formats/ManifestExpiry.h"
#include "trust/BundleSignature.h"
#include "trust/ManifestSignature.h"

#include "formats/StrictJson.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonObject>
#include <QTemporaryDir>

#include <cstdio>

namespace {

const QString kNoun = QStringLiteral("manifest");

QString firstUnsafeEntry(const QString& listing) {
    // The launcher's rule is applied entry by entry only to say which one it refuses.
    for (const QString& entry : listing.split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
        try {
            checkArchiveListing(entry);
        } catch (const LauncherError&) {
            return entry;
        }
    }
    return {};
}

QByteArray readAll(const QString& path, const std::string& check) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        throw CheckFailed(check, path + QStringLiteral(" cannot be read: ") + file.errorString());
    return file.readAll();
}

// The signature beside the manifest, checked over the manifest's exact bytes; nothing when the
// manifest is not signed and need not be.
std::optional<QString> checkSignature(const QString& manifestPath, const QByteArray& bytes,
                                      const TrustedKeys& keys) {
    const QString signaturePath = manifestPath + QStringLiteral(".sig");
    if (!QFileInfo::exists(signaturePath)) {
        if (!keys.empty())
            throw CheckFailed("signature", signaturePath + QStringLiteral(
                                               " is missing; launchers that require signed "
                                               "manifests refuse this one"));
        return std::nullopt;
    }
    if (keys.empty())
        throw UsageError(signaturePath.toStdString() +
                         " is there but no manifest key is known to check it; give "
                         "--manifest-key PUBLIC_KEY");
    try {
        ManifestSignature::checkSignature(bytes, readAll(signaturePath, "signature"), keys, kNoun);
    } catch (const ManifestSignatureError& error) {
        throw CheckFailed("signature", QString::fromUtf8(error.what()));
    }
    return signaturePath;
}

void checkFields(const ReleaseManifest& manifest, const QString& archive) {
    if (!ReleaseFiles::isKnownPlatform(manifest.platform))
        throw CheckFailed("platform", QStringLiteral("\"%1\" is neither macos-arm64 nor "
                                                     "macos-launcher-arm64").arg(manifest.platform));
    if (manifest.version.isEmpty() || manifest.version.contains(QLatin1Char('/')) ||
        manifest.version == QLatin1String(".") || manifest.version == QLatin1String(".."))
        throw CheckFailed("version", QStringLiteral("\"%1\" cannot name a build folder").arg(manifest.version));
    const QString scheme = manifest.url.scheme();
    if (scheme != QLatin1String("https") && scheme != QLatin1String("http"))
        throw CheckFailed("url", QStringLiteral("%1 is not an http or https address; the launcher "
                                                "downloads archives only over HTTP")
                                     .arg(manifest.url.toString()));
    if (manifest.url.fileName() != QFileInfo(archive).fileName())
        std::fprintf(stderr, "zentho-release: warning: the url names %s, the archive given is %s\n",
                     qPrintable(manifest.url.fileName()), qPrintable(QFileInfo(archive).fileName()));
    if (const QString problem = ReleaseFiles::relativePathProblem(manifest.executable);
        !problem.isEmpty())
        throw CheckFailed("executable", problem);
    if (manifest.chunks) {
        for (const QUrl& url : {manifest.chunks->index, manifest.chunks->store, manifest.chunks->compressedIndex,
                                manifest.chunks->pack}) {
            if (url.isValid() && url.scheme() != QLatin1String("https") && url.scheme() != QLatin1String("http"))
                throw CheckFailed("chunks", url.toString() + QStringLiteral(" is not an http or https address"));
        }
    }
}

// A "chunks" member that does not decode is ignored by launchers: say so rather than publish a
// release whose chunks nobody will use.
void checkChunksMember(const QByteArray& bytes, const ReleaseManifest& manifest) {
    if (!manifest.chunks && StrictJson::parse(bytes).value.toObject().contains(QStringLiteral("chunks")))
        throw CheckFailed("chunks", QStringLiteral("the manifest's \"chunks\" is not {\"index\": URL, \"sha256\": "
                                                   "64 hex digits, \"store\": URL}; launchers ignore it"));
}

// Lists and unpacks the archive into a temporary folder and checks what it holds.
void checkContents(const ReleaseManifest& manifest, const QString& archive, const TrustedKeys& sealKeys,
                   const std::optional<ChunkIndex>& index) {
    QString listing;
    try {
        listing = runTar({QStringLiteral("-tzf"), archive});
    } catch (const LauncherError& error) {
        throw CheckFailed("listing", error.errorDescription());
    }
    if (const QString unsafe = firstUnsafeEntry(listing); !unsafe.isEmpty())
        throw CheckFailed("listing", QStringLiteral("unsafe entry \"%1\"").arg(unsafe));

    QTemporaryDir trial;
    if (!trial.isValid())
        throw std::runtime_error("cannot make a temporary folder: " + trial.errorString().toStdString());
    try {
        runTar({QStringLiteral("-xzf"), archive, QStringLiteral("-C"), trial.path()});
    } catch (const LauncherError& error) {
        throw CheckFailed("extraction", error.errorDescription());
    }
    const QString staged = trial.path() + QLatin1Char('/') + manifest.executable;
    if (!QFileInfo::exists(staged))
        throw CheckFailed("executable", QStringLiteral("\"%1\" is not in the archive").arg(manifest.executable));
    if (manifest.platform == QLatin1String(ReleaseFiles::kLauncherPlatform))
        ReleaseCheck::checkLauncherBundle(staged, manifest.version, QStringLiteral("the manifest"), sealKeys);
    if (index)
        ChunkCheck::compareWithTree(*index, trial.path());
}

} // namespace

CheckFailed::CheckFailed(const std::string& check, const QString& reason)
    : std::runtime_error(check + ": " +
                         QString(reason).trimmed().replace(QLatin1Char('\n'), QStringLiteral("; ")).toStdString()) {}

namespace ReleaseCheck {

CheckedRelease check(const QString& manifestPath, const QString& archivePath,
                     const ReleaseCheckKeys& keys, const ReleaseChunkFiles& chunkFiles) {
    if (!QFileInfo(archivePath).isFile())
        throw CheckFailed("archive", archivePath + QStringLiteral(" is not a file"));
    CheckedRelease release;
    release.manifestPath = manifestPath;
    release.archivePath = archivePath;
    const QByteArray bytes = readAll(manifestPath, "manifest");
    release.signaturePath = checkSignature(manifestPath, bytes, keys.manifest);
    try {
        release.manifest = ReleaseManifest::decode(bytes);
        if (release.signaturePath) {
            release.expires = ManifestExpiry::expiry(bytes, kNoun);
            ManifestExpiry::checkNotExpired(bytes, QDateTime::currentDateTimeUtc(), kNoun);
        }
    } catch (const ManifestDecodingError& error) {
        throw CheckFailed("manifest", QString::fromUtf8(error.what()));
    } catch (const ManifestSignatureError& error) {
        throw CheckFailed("signature", QString::fromUtf8(error.what()));
    }
    const ReleaseManifest& manifest = release.manifest;
    checkFields(manifest, archivePath);
    checkChunksMember(bytes, manifest);
    if (!manifest.chunks && (!chunkFiles.index.isEmpty() || !chunkFiles.store.isEmpty()))
        throw CheckFailed("chunks", QStringLiteral("the manifest names no chunks"));

    const QString digest = ReleaseFiles::sha256OfFile(archivePath);
    if (manifest.sha256.toLower() != digest)
        throw CheckFailed("sha256", QStringLiteral("the archive's digest is %1, the manifest says \"%2\"")
                                        .arg(digest, manifest.sha256));
    if (manifest.chunks) {
        release.indexPath = chunkFiles.index.isEmpty() ? QFileInfo(archivePath).absolutePath() + QLatin1Char('/') +
                                                             manifest.chunks->index.fileName()
                                                       : chunkFiles.index;
        release.index = ChunkCheck::readIndex(*release.indexPath, *manifest.chunks);
        if (manifest.chunks->compressedIndex.isValid()) {
            release.compressedIndexPath = QFileInfo(*release.indexPath).absolutePath() + QLatin1Char('/') +
                                          manifest.chunks->compressedIndex.fileName();
            ChunkCheck::checkCompressedIndex(*release.compressedIndexPath, *manifest.chunks);
        }
        if (manifest.chunks->pack.isValid()) {
            release.packPath = QFileInfo(*release.indexPath).absolutePath() + QLatin1Char('/') +
                               manifest.chunks->pack.fileName();
            release.packSha256 = ChunkCheck::checkPack(*release.packPath, *release.index, chunkFiles.store);
        }
    }
    checkContents(manifest, archivePath, keys.seal, release.index);
    qint64 chunkCount = -1;
    if (release.index && !chunkFiles.store.isEmpty())
        chunkCount = ChunkCheck::checkStore(*release.index, chunkFiles.store);

    QStringList checks;
    if (release.signaturePath)
        checks << (release.expires ? QStringLiteral("signature until ") +
                                         ManifestExpiry::text(*release.expires)
                                   : QStringLiteral("signature"));
    checks << QStringLiteral("digest") << QStringLiteral("listing") << QStringLiteral("executable");
    if (manifest.platform == QLatin1String(ReleaseFiles::kLauncherPlatform))
        checks << QStringLiteral("seal") << QStringLiteral("libraries") << QStringLiteral("version");
    if (release.index)
        checks << QStringLiteral("chunk index");
    if (release.compressedIndexPath)
        checks << QStringLiteral("compressed index");
    if (release.packPath)
        checks << QStringLiteral("chunk pack");
    if (chunkCount >= 0)
        checks << QStringLiteral("%1 chunks").arg(chunkCount);
    release.checks = checks.join(QStringLiteral(", "));
    return release;
}

void checkLauncherBundle(const QString& bundle, const QString& version, const QString& versionSource,
                         const TrustedKeys& sealKeys) {
    const QString executable = bundle + QLatin1Char('/') + QLatin1String(ReleaseFiles::kBundleExecutable);
    if (!ReleaseFiles::isExecutableFile(executable))
        throw CheckFailed("executable", QStringLiteral("the bundle has no executable %1")
                                            .arg(QLatin1String(ReleaseFiles::kBundleExecutable)));
    const std::string problem = BundleSignature::verify(QFile::encodeName(bundle).toStdString(), sealKeys);
    if (!problem.empty())
        throw CheckFailed("seal", QString::fromStdString(problem));
    if (const std::string needs = BundlePortability::problem(QFile::encodeName(bundle).toStdString());
        !needs.empty())
        throw CheckFailed("libraries", QString::fromStdString(needs));
    std::optional<QString> own;
    try {
        own = BundleInfo::version(bundle);
    } catch (const BundleInfoError& error) {
        throw CheckFailed("version", QString::fromUtf8(error.what()));
    }
    if (!own)
        throw CheckFailed("version", QStringLiteral("the bundle does not say its version (%1 is "
                                                    "missing); build it with this project's CMake")
                                         .arg(QLatin1String(BundleInfo::kPath)));
    if (*own != version)
        throw CheckFailed("version", QStringLiteral("the bundle is %1 (%2), not the %3 that %4 names")
                                         .arg(*own, QLatin1String(BundleInfo::kPath), version, versionSource));
}

} // namespace ReleaseCheck
