// zentho-release verify: checks a release the way the launcher will, before it is published, and
// names the first check that fails.

#include "ReleaseCheck.h"
#include "ReleaseCommand.h"
#include "ReleaseKeys.h"
#include "ReleaseOptions.h"

#include <QDateTime>

#include <cstdio>
#include <string>

namespace {

const char kUsage[] =
    "usage: zentho-release verify [--key PUBLIC_KEY]... [--manifest-key PUBLIC_KEY]...\n"
    "                             [--index INDEX] [--chunks STORE_DIR] MANIFEST ARCHIVE\n"
    "\n"
    "Checks, in the launcher's order, that MANIFEST and ARCHIVE make a release the launcher\n"
    "accepts: MANIFEST.sig, when there or required, is an Ed25519 signature over the manifest's\n"
    "exact bytes by a manifest key and its \"expires\" has not passed; the five keys decode; the\n"
    "platform is macos-arm64 or macos-launcher-arm64; the version can name a build folder; the\n"
    "url is http or https; sha256 equals the archive's digest; no entry name starts with \"/\"\n"
    "or has a \"..\" component; after a trial extraction into a temporary folder the executable\n"
    "is there, and for a launcher the bundle holds an executable Contents/MacOS/ZenthoLauncher,\n"
    "its seal is valid for a seal key and its Contents/Info.json says the manifest's version.\n"
    "When the manifest names chunks (\"zentho-release pack --chunks\"): the chunk index (INDEX,\n"
    "else the file beside ARCHIVE named as its url says) has the manifest's digest, passes the\n"
    "launcher's strict reading, and lists exactly the unpacked archive's tree: paths, kinds,\n"
    "modes, symlink targets, sizes, digests and chunk cuts; with --chunks every chunk it names\n"
    "is in STORE_DIR, decompresses and matches its name and size.\n"
    "\n"
    "Seal keys are the --key files, else the keys this build's launcher trusts\n"
    "(ZENTHO_SIGNING_PUBLIC_KEY). Manifest keys are the --manifest-key files, else this build's\n"
    "ZENTHO_MANIFEST_PUBLIC_KEYS; with manifest keys a missing MANIFEST.sig fails.\n"
    "Exit status 0 with one line \"ok: ...\" (and \"rollout: ...\" with the state of a staged\n"
    "release); 1 with one line naming the failed check.\n";

int runVerify(const std::vector<std::string>& arguments) {
    const ReleaseOptions options(arguments, {"--key", "--manifest-key", "--index", "--chunks"});
    const std::vector<std::string> sealKeys = options.all("--key");
    const std::vector<std::string> manifestKeys = options.all("--manifest-key");
    const std::vector<std::string> files = options.operands();
    if (files.size() != 2)
        throw UsageError("give MANIFEST and ARCHIVE");
    const ReleaseCheckKeys keys{ReleaseKeys::chosen(sealKeys, ReleaseKeys::builtInSealKeys()),
                                ReleaseKeys::chosen(manifestKeys, ReleaseKeys::builtInManifestKeys())};
    const ReleaseChunkFiles chunkFiles{QString::fromStdString(options.one("--index").value_or(std::string())),
                                       QString::fromStdString(options.one("--chunks").value_or(std::string()))};
    const CheckedRelease release = ReleaseCheck::check(QString::fromStdString(files.at(0)),
                                                       QString::fromStdString(files.at(1)), keys, chunkFiles);
    std::printf("ok: %s %s: %s checked\n", qPrintable(release.manifest.platform),
                qPrintable(release.manifest.version), qPrintable(release.checks));
    if (release.manifest.rollout)
        std::printf("rollout: %s\n", qPrintable(release.manifest.rollout->describe(QDateTime::currentDateTimeUtc())));
    return 0;
}

} // namespace

const ReleaseCommand verifyCommand{"verify", "check a manifest and archive as the launcher will",
                                   kUsage, &runVerify};
