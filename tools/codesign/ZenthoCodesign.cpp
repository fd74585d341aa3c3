// zentho-codesign: checks the seal of an application bundle against the one public key compiled
// into this program. It ships inside the launcher bundle, next to the launcher executable, and
// the launcher runs it on a downloaded update before it hands the update to the finish script.
//
//   zentho-codesign --verify --deep --strict BUNDLE.app
//
// BundleVerifierCommand.h describes the exit statuses.

#include "TrustedSigningKey.h"

#include "trust/BundleVerifierCommand.h"

int main(int argc, char** argv) {
    return runBundleVerifier(argc, argv, kTrustedPublicKeyPem);
}
