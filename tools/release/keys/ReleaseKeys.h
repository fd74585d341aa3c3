#pragma once

#include "trust/TrustedKeys.h"

#include <string>
#include <vector>

// The keys the release tool checks with: by default those the launcher of the same build trusts,
// so a release that passes the tool passes that launcher; the command line may name others.
namespace ReleaseKeys {

// ZENTHO_SIGNING_PUBLIC_KEY of this build: the keys bundle seals must come from.
TrustedKeys builtInSealKeys();
// ZENTHO_MANIFEST_PUBLIC_KEYS of this build: empty when its launcher takes unsigned manifests.
TrustedKeys builtInManifestKeys();

// The public halves of the PEM files `paths`, or `builtIn` when there are none. Throws KeyError
// naming a file that is not an Ed25519 key.
TrustedKeys chosen(const std::vector<std::string>& paths, const TrustedKeys& builtIn);

} // namespace ReleaseKeys
