// zentho-release verify: checks a release the way the launcher will, before it is published, and
// names the first check that fails.

#include "ReleaseCommand.h"
#include "ReleaseFiles.h"

#include "errors/LauncherError.h"
#include "update/Archive.h"
#include "update/BundleSignature.h"
#include "update/ReleaseManifest.h"

#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <cstdio>
#include <string>

namespace {

const char kUsage[] =
    "usage: zentho-release verify [--key PUBLIC_KEY] MANIFEST ARCHIVE\n"
    "\n"
    "Checks, in the launcher's order, that MANIFEST and ARCHIVE make a release the launcher\n"
    "accepts: the five keys decode; the platform is macos-arm64 or macos-launcher-arm64; the\n"
    "version can name a build folder; the url is http or https; sha256 equals the archive's\n"
    "digest; no entry name starts with \"/\" or has a \"..\" component; after a trial extraction\n"
    "into a temporary folder the executable is there, and for a launcher the bundle holds an\n"
    "executable Contents/MacOS/ZenthoLauncher and its seal is valid for PUBLIC_KEY (the key the\n"
    "launcher trusts; required for a launcher release).\n"
    "Exit status 0 with one line \"ok: ...\"; 1 with one line naming the failed check.\n";

class CheckFailed : public std::runtime_error {
public:
    CheckFailed(const std::string& check, const QString& reason)
        : std::runtime_error(check + ": " +
                             reason.trimmed().replace(QLatin1Char('\n'), QStringLiteral("; ")).toStdString()) {}
};

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

ReleaseManifest readManifest(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        throw CheckFailed("manifest", path + QStringLiteral(" cannot be read: ") + file.errorString());
    try {
        return ReleaseManifest::decode(file.readAll());
    } catch (const ManifestDecodingError& error) {
        throw CheckFailed("manifest", QString::fromUtf8(error.what()));
    }
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
        std::fprintf(stderr, "zentho-release verify: warning: the url names %s, the archive "
                             "given is %s\n",
                     qPrintable(manifest.url.fileName()), qPrintable(QFileInfo(archive).fileName()));
    if (const QString problem = ReleaseFiles::relativePathProblem(manifest.executable);
        !problem.isEmpty())
        throw CheckFailed("executable", problem);
}

void checkLauncherBundle(const QString& bundle, const QString& key) {
    const QString executable =
        bundle + QLatin1Char('/') + QLatin1String(ReleaseFiles::kBundleExecutable);
    if (!ReleaseFiles::isExecutableFile(executable))
        throw CheckFailed("executable", QStringLiteral("the bundle has no executable %1")
                                            .arg(QLatin1String(ReleaseFiles::kBundleExecutable)));
    const Ed25519Key trusted = Ed25519Key::fromFile(key.toStdString());
    const std::string problem = BundleSignature::verify(QFile::encodeName(bundle).toStdString(), trusted);
    if (!problem.empty())
        throw CheckFailed("signature", QString::fromStdString(problem));
}

int runVerify(const std::vector<std::string>& arguments) {
    QString key;
    QStringList files;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        if (argument == "--key") {
            if (i + 1 >= arguments.size())
                throw UsageError("--key needs a file");
            key = QString::fromStdString(arguments[++i]);
        } else if (!argument.empty() && argument[0] == '-') {
            throw UsageError("unknown option " + argument);
        } else {
            files << QString::fromStdString(argument);
        }
    }
    if (files.size() != 2)
        throw UsageError("give MANIFEST and ARCHIVE");
    const QString& archive = files.at(1);
    if (!QFileInfo(archive).isFile())
        throw CheckFailed("archive", archive + QStringLiteral(" is not a file"));

    const ReleaseManifest manifest = readManifest(files.at(0));
    checkFields(manifest, archive);
    const bool launcher = manifest.platform == QLatin1String(ReleaseFiles::kLauncherPlatform);
    if (launcher && key.isEmpty())
        throw UsageError("a launcher release needs --key PUBLIC_KEY to check the bundle's seal");

    const QString digest = ReleaseFiles::sha256OfFile(archive);
    if (manifest.sha256.toLower() != digest)
        throw CheckFailed("sha256", QStringLiteral("the archive's digest is %1, the manifest says \"%2\"")
                                        .arg(digest, manifest.sha256));

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
    if (launcher)
        checkLauncherBundle(staged, key);

    std::printf("ok: %s %s: digest, listing, executable%s checked\n", qPrintable(manifest.platform),
                qPrintable(manifest.version), launcher ? ", seal" : "");
    return 0;
}

} // namespace

const ReleaseCommand verifyCommand{"verify", "check a manifest and archive as the launcher will",
                                   kUsage, &runVerify};
