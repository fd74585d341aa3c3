// zentho-release publish: lays packed releases out in a folder exactly as the release server
// serves them, in an order that never shows a launcher a manifest whose archive is not there yet.

#include "ReleaseCheck.h"
#include "ReleaseCommand.h"
#include "ReleaseFiles.h"
#include "ReleaseKeys.h"
#include "ReleaseOptions.h"

#include <QDir>
#include <QFileInfo>

#include <cstdio>
#include <set>
#include <string>
#include <vector>

namespace {

const char kUsage[] =
    "usage: zentho-release publish --to DIR [--dry-run] [--key PUBLIC_KEY]...\n"
    "                              [--manifest-key PUBLIC_KEY]... MANIFEST...\n"
    "\n"
    "Publishes the releases that \"zentho-release pack\" wrote (each MANIFEST with its archive,\n"
    "named by its url, and its MANIFEST.sig beside it) into DIR, laid out as the release server\n"
    "serves them from its document root:\n"
    "  DIR/release/P-manifest.json[.sig]   each release's manifest and signature\n"
    "  DIR/<path of the url>               each archive, e.g. DIR/release/zentho-V-P.tar.gz\n"
    "Every release is first checked as \"zentho-release verify\" does (same keys); nothing is\n"
    "written unless all pass. Then, in this order: every archive is copied in, then each\n"
    "release's signature and then its manifest replace the old ones. Each file is written under\n"
    "a hidden name, flushed to disk and renamed into place, so a reader never sees half a file\n"
    "and no manifest ever names an archive that is not in place. Archives of earlier releases\n"
    "stay: a launcher still downloading one keeps its file.\n"
    "\n"
    "Refused: an archive already in DIR with other content (a published archive is never\n"
    "replaced; pack under a new version), an unsigned manifest where a signed one is published,\n"
    "two manifests for one platform, and an archive url whose path could leave DIR.\n"
    "Prints one line per file: archive:, signature:, manifest: (\"kept\" for an archive that is\n"
    "already in place). --dry-run checks and prints, and writes nothing.\n";

struct Placement {
    CheckedRelease release;
    QString archive;   // in DIR
    QString manifest;  // in DIR
    QString signature; // in DIR
    bool archiveThere = false;
};

// DIR + the url's path, refused when the path could point anywhere else.
QString archiveDestination(const QString& root, const QUrl& url) {
    const QString path = url.path(QUrl::FullyDecoded);
    const QStringList parts = path.split(QLatin1Char('/'), Qt::SkipEmptyParts);
    if (!path.startsWith(QLatin1Char('/')) || parts.isEmpty() || path.endsWith(QLatin1Char('/')) ||
        parts.contains(QStringLiteral("..")) || parts.contains(QStringLiteral(".")) ||
        path.contains(QLatin1Char('\n')) || path.contains(QLatin1Char('\\')))
        throw std::runtime_error("the url " + url.toString().toStdString() +
                                 " has no path an archive can be published at");
    return root + QLatin1Char('/') + parts.join(QLatin1Char('/'));
}

ReleaseManifest readManifest(const QString& manifestPath) {
    try {
        return ReleaseManifest::decode(ReleaseFiles::readFile(manifestPath));
    } catch (const ManifestDecodingError& error) {
        throw CheckFailed("manifest", QString::fromUtf8(error.what()));
    }
}

Placement place(const QString& root, const QString& manifestPath, const ReleaseCheckKeys& keys) {
    // The archive sits beside its manifest under the name its url gives it.
    const QString archiveName = readManifest(manifestPath).url.fileName();
    Placement placement;
    placement.release = ReleaseCheck::check(
        manifestPath, QFileInfo(manifestPath).absolutePath() + QLatin1Char('/') + archiveName, keys);
    const ReleaseManifest& manifest = placement.release.manifest;
    placement.manifest = root + QStringLiteral("/release/") + manifest.platform + QStringLiteral("-manifest.json");
    placement.signature = placement.manifest + QStringLiteral(".sig");
    placement.archive = archiveDestination(root, manifest.url);
    if (placement.archive == placement.manifest || placement.archive == placement.signature)
        throw std::runtime_error("the url " + manifest.url.toString().toStdString() +
                                 " names the manifest's own place");

    const QFileInfo published(placement.archive);
    if (published.exists()) {
        if (!published.isFile() || ReleaseFiles::sha256OfFile(placement.archive) != manifest.sha256.toLower())
            throw std::runtime_error(placement.archive.toStdString() +
                                     " is already published with other content; a published "
                                     "archive is never replaced (pack the release under a new "
                                     "version)");
        placement.archiveThere = true;
    }
    if (!placement.release.signaturePath && QFileInfo::exists(placement.signature))
        throw std::runtime_error(placement.manifest.toStdString() +
                                 " is published signed and " + manifestPath.toStdString() +
                                 " is not; launchers that require signed manifests would refuse "
                                 "it (pack with --sign-key)");
    return placement;
}

int runPublish(const std::vector<std::string>& arguments) {
    const ReleaseOptions options(arguments, {"--to", "--key", "--manifest-key"}, {"--dry-run"});
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
        placements.push_back(place(root, QString::fromStdString(manifest), keys));
    const bool dryRun = options.has("--dry-run");

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
