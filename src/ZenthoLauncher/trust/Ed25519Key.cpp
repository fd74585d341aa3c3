#include "trust/Ed25519Key.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <fstream>
#include <iterator>

namespace {

struct BioFree {
    void operator()(BIO* bio) const { BIO_free(bio); }
};
using BioPtr = std::unique_ptr<BIO, BioFree>;

struct ContextFree {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

BioPtr readBio(const std::string& text) {
    return BioPtr(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

std::string drain(BIO* bio) {
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio, &data);
    return size > 0 ? std::string(data, static_cast<std::size_t>(size)) : std::string();
}

bool isEd25519(EVP_PKEY* key) {
    return key && EVP_PKEY_get_id(key) == EVP_PKEY_ED25519;
}

} // namespace

void Ed25519Key::Free::operator()(EVP_PKEY* key) const {
    EVP_PKEY_free(key);
}

Ed25519Key::Ed25519Key(EVP_PKEY* key, bool hasPrivate) : key_(key), hasPrivate_(hasPrivate) {}

Ed25519Key::Ed25519Key(const Ed25519Key& other) : hasPrivate_(other.hasPrivate_) {
    if (other.key_ && EVP_PKEY_up_ref(other.key_.get()) == 1)
        key_.reset(other.key_.get());
}

Ed25519Key& Ed25519Key::operator=(const Ed25519Key& other) {
    if (this != &other)
        *this = Ed25519Key(other);
    return *this;
}

Ed25519Key Ed25519Key::generate() {
    EVP_PKEY* key = nullptr;
    std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> context(
        EVP_PKEY_CTX_new_id(EVP_PKEY_ED25519, nullptr), &EVP_PKEY_CTX_free);
    if (!context || EVP_PKEY_keygen_init(context.get()) != 1 ||
        EVP_PKEY_keygen(context.get(), &key) != 1)
        throw KeyError("could not generate an Ed25519 key");
    return Ed25519Key(key, true);
}

Ed25519Key Ed25519Key::fromPrivatePem(const std::string& pem) {
    BioPtr bio = readBio(pem);
    EVP_PKEY* key = bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr) : nullptr;
    ERR_clear_error();
    if (!isEd25519(key)) {
        EVP_PKEY_free(key);
        throw KeyError("not an Ed25519 private key in PEM form");
    }
    return Ed25519Key(key, true);
}

Ed25519Key Ed25519Key::fromPublicPem(const std::string& pem) {
    BioPtr bio = readBio(pem);
    EVP_PKEY* key = bio ? PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, nullptr) : nullptr;
    ERR_clear_error();
    if (!isEd25519(key)) {
        EVP_PKEY_free(key);
        throw KeyError("not an Ed25519 public key in PEM form");
    }
    return Ed25519Key(key, false);
}

Ed25519Key Ed25519Key::fromFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file)
        throw KeyError(path + ": cannot be read");
    const std::string pem{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    try {
        if (pem.find("PRIVATE KEY-----") != std::string::npos)
            return fromPrivatePem(pem);
        return fromPublicPem(pem);
    } catch (const KeyError& error) {
        throw KeyError(path + ": " + error.what());
    }
}

std::string Ed25519Key::privatePem() const {
    if (!hasPrivate_)
        throw KeyError("this is a public key only");
    BioPtr bio(BIO_new(BIO_s_mem()));
    if (!bio || PEM_write_bio_PrivateKey(bio.get(), key_.get(), nullptr, nullptr, 0, nullptr,
                                         nullptr) != 1)
        throw KeyError("could not write the private key");
    return drain(bio.get());
}

std::string Ed25519Key::publicPem() const {
    BioPtr bio(BIO_new(BIO_s_mem()));
    if (!bio || PEM_write_bio_PUBKEY(bio.get(), key_.get()) != 1)
        throw KeyError("could not write the public key");
    return drain(bio.get());
}

std::string Ed25519Key::sign(const std::string& message) const {
    if (!hasPrivate_)
        throw KeyError("a public key cannot sign");
    std::unique_ptr<EVP_MD_CTX, ContextFree> context(EVP_MD_CTX_new());
    std::string signature(64, '\0');
    std::size_t length = signature.size();
    if (!context ||
        EVP_DigestSignInit(context.get(), nullptr, nullptr, nullptr, key_.get()) != 1 ||
        EVP_DigestSign(context.get(), reinterpret_cast<unsigned char*>(signature.data()), &length,
                       reinterpret_cast<const unsigned char*>(message.data()),
                       message.size()) != 1) {
        ERR_clear_error();
        throw KeyError("could not sign");
    }
    signature.resize(length);
    return signature;
}

bool Ed25519Key::verify(const std::string& message, const std::string& signature) const {
    std::unique_ptr<EVP_MD_CTX, ContextFree> context(EVP_MD_CTX_new());
    const bool ok =
        context &&
        EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, key_.get()) == 1 &&
        EVP_DigestVerify(context.get(), reinterpret_cast<const unsigned char*>(signature.data()),
                         signature.size(), reinterpret_cast<const unsigned char*>(message.data()),
                         message.size()) == 1;
    ERR_clear_error();
    return ok;
}
