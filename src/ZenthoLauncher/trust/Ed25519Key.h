#pragma once

#include "errors/Failure.h"

#include <memory>
#include <string>

typedef struct evp_pkey_st EVP_PKEY;

// An Ed25519 key, private (can sign and verify) or public only (can verify), read from and
// written as PEM: PKCS#8 for the private half, SubjectPublicKeyInfo for the public half, the
// forms `openssl genpkey -algorithm ed25519` and `openssl pkey -pubout` use.
class Ed25519Key {
public:
    static Ed25519Key generate();
    static Ed25519Key fromPrivatePem(const std::string& pem);
    static Ed25519Key fromPublicPem(const std::string& pem);
    // Reads a PEM file holding either half; `path` names the file in error texts.
    static Ed25519Key fromFile(const std::string& path);

    // Copies share the one key held by libcrypto.
    Ed25519Key(const Ed25519Key& other);
    Ed25519Key& operator=(const Ed25519Key& other);
    Ed25519Key(Ed25519Key&&) noexcept = default;
    Ed25519Key& operator=(Ed25519Key&&) noexcept = default;
    ~Ed25519Key() = default;

    bool hasPrivateKey() const { return hasPrivate_; }
    std::string privatePem() const; // throws KeyError for a public-only key
    std::string publicPem() const;

    // The 64-byte signature of `message`; throws KeyError for a public-only key.
    std::string sign(const std::string& message) const;
    bool verify(const std::string& message, const std::string& signature) const;

private:
    struct Free {
        void operator()(EVP_PKEY* key) const;
    };
    Ed25519Key(EVP_PKEY* key, bool hasPrivate);

    std::unique_ptr<EVP_PKEY, Free> key_;
    bool hasPrivate_ = false;
};
