#pragma once

#include "trust/TrustedKeys.h"

// The keys this launcher trusts to sign its release manifests, fixed at build time
// (ZENTHO_MANIFEST_PUBLIC_KEYS). Empty when the build does not ask for signed manifests: the
// launcher then neither fetches nor checks a signature. Read once; throws KeyError if the keys
// compiled in do not read back, which the build's own check rules out.
const TrustedKeys& trustedManifestKeys();
