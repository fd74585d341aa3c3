#include "trust/Sha256.h"

#include "errors/Failure.h"

#include <openssl/evp.h>

Sha256::Sha256()
    : context_(EVP_MD_CTX_new()) {
    if (context_ == nullptr || EVP_DigestInit_ex(context_, EVP_sha256(), nullptr) != 1) {
        EVP_MD_CTX_free(context_);
        throw Failure("SHA-256 is not available");
    }
}

Sha256::~Sha256() {
    EVP_MD_CTX_free(context_);
}

void Sha256::update(const char* bytes, std::size_t size) {
    if (size > 0 && EVP_DigestUpdate(context_, bytes, size) != 1)
        throw Failure("SHA-256 update failed");
}

QString Sha256::finishHex() {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(context_, digest, &length) != 1)
        throw Failure("SHA-256 finish failed");
    return QString::fromLatin1(
        QByteArray(reinterpret_cast<const char*>(digest), int(length)).toHex());
}
