#include "identity/TrustedManifestKeys.h"

#include "TrustedManifestKeysPem.h"

const TrustedKeys& trustedManifestKeys() {
    static const TrustedKeys keys = TrustedKeys::fromPem(kTrustedManifestKeysPem);
    return keys;
}
