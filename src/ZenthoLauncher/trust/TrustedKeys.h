#pragma once

#include "trust/Ed25519Key.h"

#include <string>
#include <vector>

// The public keys a launcher trusts for one purpose (bundle seals, or release manifests): a small
// set, so a publisher can ship launchers that trust the current key and the next one before
// signing with the next. A signature counts when any of them made it. Shared by the verifier program,
// the launcher and the release tool.
class TrustedKeys {
public:
    TrustedKeys() = default;
    // One key, for callers that trust exactly one.
    TrustedKeys(Ed25519Key key); // NOLINT: a single key is a set of one

    // Every "PUBLIC KEY" PEM block in `pem`, in order; blank text is an empty set. Throws KeyError
    // for a block that is not an Ed25519 public key, and for anything outside the blocks that is
    // not blank (a private key pasted by mistake must never pass silently).
    static TrustedKeys fromPem(const std::string& pem);
    // The public halves of the PEM files at `paths` (private key files count by their public
    // half). Throws KeyError naming the file at fault.
    static TrustedKeys fromFiles(const std::vector<std::string>& paths);

    void add(Ed25519Key key);
    bool empty() const { return keys_.empty(); }
    std::size_t size() const { return keys_.size(); }

    // True when one of the keys made `signature` over `message`.
    bool verify(const std::string& message, const std::string& signature) const;

private:
    std::vector<Ed25519Key> keys_;
};
