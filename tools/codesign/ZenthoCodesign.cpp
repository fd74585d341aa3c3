// zentho-codesign: checks the seal of an application bundle against the one public key compiled
// into this program. It ships inside the launcher bundle, next to the launcher executable, and
// the launcher runs it on a downloaded update before it hands the update to the finish script.
//
//   zentho-codesign --verify --deep --strict BUNDLE.app
//
// Exit status 0: the bundle is sealed by the trusted key and nothing in it differs from the
// seal. Exit status 1: it is not, with the reason on one line of standard error. Exit status 2:
// the command line is not the one above. Every check is deep and strict; the options are there so
// the command reads the same as the platform tool it stands in for.

#include "TrustedSigningKey.h"

#include "update/BundleSignature.h"

#include <cstdio>
#include <cstring>

int main(int argc, char** argv) {
    if (argc != 5 || std::strcmp(argv[1], "--verify") != 0 || std::strcmp(argv[2], "--deep") != 0 ||
        std::strcmp(argv[3], "--strict") != 0 || argv[4][0] == '\0') {
        std::fprintf(stderr, "usage: zentho-codesign --verify --deep --strict BUNDLE.app\n");
        return 2;
    }
    try {
        const Ed25519Key trusted = Ed25519Key::fromPublicPem(kTrustedPublicKeyPem);
        const std::string problem = BundleSignature::verify(argv[4], trusted);
        if (problem.empty())
            return 0;
        std::fprintf(stderr, "%s\n", problem.c_str());
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
    }
    return 1;
}
