#include "ReleaseKeys.h"

#include "identity/TrustedManifestKeys.h"
#include "TrustedSigningKey.h"

namespace ReleaseKeys {

TrustedKeys builtInSealKeys() {
    return TrustedKeys::fromPem(kTrustedPublicKeyPem);
}

TrustedKeys builtInManifestKeys() {
    return trustedManifestKeys();
}

TrustedKeys chosen(const std::vector<std::string>& paths, const TrustedKeys& builtIn) {
    return paths.empty() ? builtIn : TrustedKeys::fromFiles(paths);
}

} // namespace ReleaseKeys
