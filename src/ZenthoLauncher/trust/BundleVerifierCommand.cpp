#include "trust/BundleVerifierCommand.h"

#include "trust/BundleSignature.h"

#include <cstdio>
#include <cstring>
#include <exception>

int runBundleVerifier(int argc, char** argv, const char* trustedPublicKeysPem) {
    if (argc != 5 || std::strcmp(argv[1], "--verify") != 0 || std::strcmp(argv[2], "--deep") != 0 ||
        std::strcmp(argv[3], "--strict") != 0 || argv[4][0] == '\0') {
        std::fprintf(stderr, "usage: zentho-codesign --verify --deep --strict BUNDLE.app\n");
        return 2;
    }
    try {
        const TrustedKeys trusted = TrustedKeys::fromPem(trustedPublicKeysPem);
        if (trusted.empty())
            throw KeyError("this verifier trusts no key");
        const std::string problem = BundleSignature::verify(argv[4], trusted);
        if (problem.empty())
            return 0;
        std::fprintf(stderr, "%s\n", problem.c_str());
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", error.what());
    }
    return 1;
}
