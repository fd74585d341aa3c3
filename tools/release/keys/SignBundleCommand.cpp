// zentho-release sign-bundle: seals a launcher bundle with a private key.

#include "BundlePortability.h"
#include "ReleaseCommand.h"
#include "ReleaseFiles.h"

#include "trust/BundleSignature.h"

#include <QFile>

#include <string>

namespace {

const char kUsage[] =
    "usage: zentho-release sign-bundle --key KEY BUNDLE.app\n"
    "\n"
    "Seals every entry of BUNDLE.app (files with their contents, folders, symlinks with their\n"
    "targets, permission modes) with the Ed25519 private key in KEY (PEM) and writes the seal to\n"
    "BUNDLE.app/Contents/_CodeSignature/Signature, replacing an earlier one. Sign last: any\n"
    "change to the bundle afterwards breaks the seal. BUNDLE.app must be a launcher bundle,\n"
    "with an executable Contents/MacOS/ZenthoLauncher, that carries every library it needs\n"
    "beyond those every desktop provides, asks for no newer GNU C library than " ZENTHO_GLIBC_FLOOR "\n"
    "nor C++ runtime than GLIBCXX_" ZENTHO_GLIBCXX_FLOOR ", and holds x86-64 code only.\n";

int runSignBundle(const std::vector<std::string>& arguments) {
    std::string key;
    std::string bundle;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        if (argument == "--key") {
            if (i + 1 >= arguments.size())
                throw UsageError("--key needs a file");
            key = arguments[++i];
        } else if (!argument.empty() && argument[0] == '-') {
            throw UsageError("unknown option " + argument);
        } else if (bundle.empty()) {
            bundle = argument;
        } else {
            throw UsageError("more than one BUNDLE given");
        }
    }
    if (key.empty())
        throw UsageError("--key KEY is missing");
    if (bundle.empty())
        throw UsageError("BUNDLE is missing");
    const Ed25519Key signingKey = Ed25519Key::fromFile(key);
    if (!signingKey.hasPrivateKey())
        throw std::runtime_error(key + ": is a public key; signing needs the private key");
    // A seal written into a game folder or any other folder by mistake would change it, and
    // could be packed as a launcher later.
    if (!ReleaseFiles::isExecutableFile(QFile::decodeName(QByteArray::fromStdString(bundle + "/" + ReleaseFiles::kBundleExecutable))))
        throw std::runtime_error(bundle + ": not a launcher bundle (no executable " +
                                 ReleaseFiles::kBundleExecutable + ")");
    // Sealed, a bundle that cannot run on players' systems would be published as it is.
    if (const std::string problem = BundlePortability::problem(bundle); !problem.empty())
        throw std::runtime_error(bundle + ": " + problem);
    BundleSignature::sign(bundle, signingKey);
    return 0;
}

} // namespace

const ReleaseCommand signBundleCommand{"sign-bundle", "seal a launcher bundle with a private key",
                                       kUsage, &runSignBundle};
