// zentho-release pack: turns a game build folder or a sealed launcher bundle into a release: the
// gzip tar archive and the manifest that names it, ready to be served side by side.

#include "ReleaseCommand.h"
#include "ReleaseFiles.h"
#include "ReleaseTree.h"

#include "update/Archive.h"
#include "update/BundleSignature.h"
#include "update/ReleaseManifest.h"

#include <Uuid.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryFile>
#include <QUrl>

#include <cstdio>
#include <string>

namespace {

const char kUsage[] =
    "usage: zentho-release pack --platform P --version V --executable E --url-base URL\n"
    "                           [--out DIR] [--force] SRC\n"
    "\n"
    "Packs a release and writes its manifest. Two kinds of release:\n"
    "  game      --platform macos-arm64: SRC is the build folder; its content becomes the top\n"
    "            level of the archive and E is the path of the game's executable inside it\n"
    "            (normally \"zentho\"; it must be an executable file).\n"
    "  launcher  --platform macos-launcher-arm64: SRC is the sealed X.app bundle folder, which\n"
    "            becomes the archive's one top-level entry, and E is its name, X.app. The bundle\n"
    "            must hold an executable Contents/MacOS/ZenthoLauncher and a seal made by\n"
    "            \"zentho-release sign-bundle\" (sign first, then pack).\n"
    "\n"
    "Writes into DIR (default: the current folder, created if missing):\n"
    "  zentho-V-P.tar.gz    the archive (gzip tar, names sorted, owner and group 0)\n"
    "  P-manifest.json      {version, platform, url, sha256, executable}, where url is\n"
    "                       URL/zentho-V-P.tar.gz and sha256 the archive's lower-case digest\n"
    "and prints the manifest's path. Serve the manifest as /release/P-manifest.json and the\n"
    "archive at the url. Existing files are kept unless --force is given.\n"
    "\n"
    "Refused: a version other than letters, digits and . _ + - (it names folders and files), a\n"
    "URL that is not http or https, names with control characters or that are not UTF-8,\n"
    "symlinks that point outside SRC, devices, pipes and sockets, and DIR inside SRC.\n";

struct PackOptions {
    QString platform;
    QString version;
    QString executable;
    QString urlBase;
    QString out = QStringLiteral(".");
    QString source;
    bool force = false;
};

PackOptions parse(const std::vector<std::string>& arguments) {
    PackOptions options;
    const std::pair<const char*, QString*> valued[] = {
        {"--platform", &options.platform},     {"--version", &options.version},
        {"--executable", &options.executable}, {"--url-base", &options.urlBase},
        {"--out", &options.out},
    };
    bool haveSource = false;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        bool matched = false;
        for (const auto& [name, target] : valued) {
            if (argument != name)
                continue;
            if (i + 1 >= arguments.size())
                throw UsageError(argument + " needs a value");
            *target = QString::fromStdString(arguments[++i]);
            matched = true;
        }
        if (matched)
            continue;
        if (argument == "--force")
            options.force = true;
        else if (!argument.empty() && argument[0] == '-')
            throw UsageError("unknown option " + argument);
        else if (haveSource)
            throw UsageError("more than one SRC given");
        else {
            options.source = QString::fromStdString(argument);
            haveSource = true;
        }
    }
    if (options.platform.isEmpty())
        throw UsageError("--platform P is missing");
    if (options.version.isEmpty())
        throw UsageError("--version V is missing");
    if (options.executable.isEmpty())
        throw UsageError("--executable E is missing");
    if (options.urlBase.isEmpty())
        throw UsageError("--url-base URL is missing");
    if (!haveSource || options.source.isEmpty())
        throw UsageError("SRC is missing");
    if (!ReleaseFiles::isKnownPlatform(options.platform))
        throw UsageError("--platform must be macos-arm64 or macos-launcher-arm64, not \"" +
                         options.platform.toStdString() + "\"");
    if (const QString problem = ReleaseFiles::versionProblem(options.version); !problem.isEmpty())
        throw UsageError("--version: " + problem.toStdString());
    if (const QString problem = ReleaseFiles::relativePathProblem(options.executable);
        !problem.isEmpty())
        throw UsageError("--executable: " + problem.toStdString());
    while (options.urlBase.endsWith(QLatin1Char('/')))
        options.urlBase.chop(1);
    const QUrl base(options.urlBase, QUrl::StrictMode);
    const QString scheme = base.scheme();
    if (!base.isValid() || (scheme != QLatin1String("https") && scheme != QLatin1String("http")) ||
        base.host().isEmpty() || base.hasQuery() || base.hasFragment())
        throw UsageError("--url-base must be an http or https address without query, not \"" +
                         options.urlBase.toStdString() + "\"");
    return options;
}

std::runtime_error failure(const QString& text) {
    return std::runtime_error(text.toStdString());
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
    const QString executable = source + QLatin1Char('/') + QLatin1String(ReleaseFiles::kBundleExecutable);
    if (!ReleaseFiles::isExecutableFile(executable))
        throw failure(executable + QStringLiteral(": missing or not an executable file"));
    if (!QFileInfo::exists(source + QLatin1Char('/') + QLatin1String(BundleSignature::kSealPath)))
        throw failure(source + QStringLiteral(": the bundle is not sealed; run \"zentho-release "
                                              "sign-bundle --key KEY\" on it first"));
}

// Creates the archive under a hidden name beside its final one and renames it into place only
// once tar has succeeded and the listing passes the launcher's own rule.
void writeArchive(const QString& archive, const QString& folder, const QStringList& members) {
    QTemporaryFile names;
    if (!names.open())
        throw failure(QStringLiteral("cannot make a temporary file: ") + names.errorString());
    for (const QString& member : members)
        names.write(QFile::encodeName(member) + '\0');
    names.flush();

    const QFileInfo target(archive);
    const QString partial = target.absolutePath() + QStringLiteral("/.") + target.fileName() +
                            QStringLiteral(".partial-") + QString::fromStdString(makeUpperUuid());
    try {
        runTar({QStringLiteral("-czf"), partial, QStringLiteral("--sort=name"),
                QStringLiteral("--owner=0"), QStringLiteral("--group=0"),
                QStringLiteral("--numeric-owner"), QStringLiteral("-C"), folder,
                QStringLiteral("--null"), QStringLiteral("--verbatim-files-from"),
                QStringLiteral("-T"), names.fileName()});
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
}

int runPack(const std::vector<std::string>& arguments) {
    const PackOptions options = parse(arguments);
    const bool launcher = options.platform == QLatin1String(ReleaseFiles::kLauncherPlatform);

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

    // Checked before the folder is made, and again once symlinks in its path are resolved.
    const auto inside = [&source](const QString& folder) {
        return folder == source || folder.startsWith(source + QLatin1Char('/'));
    };
    if (inside(QDir::cleanPath(QFileInfo(options.out).absoluteFilePath())))
        throw UsageError("--out must not be inside SRC");
    if (!QDir().mkpath(options.out))
        throw failure(options.out + QStringLiteral(": cannot be created"));
    const QString out = QFileInfo(options.out).canonicalFilePath();
    if (inside(out))
        throw UsageError("--out must not be inside SRC");

    const QString archiveName = QStringLiteral("zentho-%1-%2.tar.gz").arg(options.version, options.platform);
    const QString archive = out + QLatin1Char('/') + archiveName;
    const QString manifestPath = out + QLatin1Char('/') + options.platform + QStringLiteral("-manifest.json");
    for (const QString& path : {archive, manifestPath}) {
        if (!options.force && QFileInfo(path).exists())
            throw failure(path + QStringLiteral(" already exists; use --force to replace it"));
    }

    if (launcher)
        writeArchive(archive, sourceInfo.dir().canonicalPath(), {options.executable});
    else
        writeArchive(archive, source,
                     QDir(source).entryList(QDir::AllEntries | QDir::Hidden | QDir::System |
                                                QDir::NoDotAndDotDot,
                                            QDir::Name));

    ReleaseManifest manifest;
    manifest.version = options.version;
    manifest.platform = options.platform;
    manifest.url = QUrl(options.urlBase + QLatin1Char('/') + archiveName, QUrl::StrictMode);
    manifest.sha256 = ReleaseFiles::sha256OfFile(archive);
    manifest.executable = options.executable;
    const QByteArray json = manifest.encode() + '\n';
    if (!(ReleaseManifest::decode(json) == manifest))
        throw failure(QStringLiteral("the manifest does not read back as written"));
    ReleaseFiles::writeFileAtomically(manifestPath, json);
    std::printf("%s\n", qPrintable(manifestPath));
    return 0;
}

} // namespace

const ReleaseCommand packCommand{"pack", "pack a game build or launcher bundle and write its manifest",
                                 kUsage, &runPack};
