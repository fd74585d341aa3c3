#pragma once

#include "trust/Ed25519Key.h"
#include "trust/TrustedKeys.h"

#include <filesystem>
#include <string>

// The seal over a whole application bundle: the canonical listing of every entry (BundleListing)
// signed with Ed25519 and kept inside the bundle, in the one file that the listing leaves out.
// Verification is strict and deep: any entry added, removed, changed, re-moded or re-linked
// anywhere below the bundle folder breaks it, and the reason names the first such entry.
//
// The seal file holds three parts, each ending in a line feed: the format line
// "zentho-bundle-signature 1", the line "ed25519 " + the signature in lower-case hex, and the
// listing. The signature covers the format line and the listing.
namespace BundleSignature {

inline constexpr const char* kSealPath = "Contents/_CodeSignature/Signature";

// Seals `bundle` with `key` (which must hold its private half), replacing an earlier seal.
// Throws BundleListingError or KeyError with a one-line reason.
void sign(const std::filesystem::path& bundle, const Ed25519Key& key);

// Empty when `bundle` carries a seal by one of `trusted` that matches every entry; otherwise a
// one-line reason such as "Contents/MacOS/ZenthoLauncher: content changed".
std::string verify(const std::filesystem::path& bundle, const TrustedKeys& trusted);

} // namespace BundleSignature
