#include "trust/TrustedKeys.h"

namespace {

const std::string kBegin = "-----BEGIN ";
const std::string kEnd = "-----END ";
const std::string kDashes = "-----";

bool isBlank(const std::string& text, std::size_t from, std::size_t to) {
    for (std::size_t i = from; i < to; ++i) {
        if (text[i] != ' ' && text[i] != '\t' && text[i] != '\r' && text[i] != '\n')
            return false;
    }
    return true;
}

} // namespace

TrustedKeys::TrustedKeys(Ed25519Key key) {
    add(std::move(key));
}

TrustedKeys TrustedKeys::fromPem(const std::string& pem) {
    TrustedKeys keys;
    std::size_t at = 0;
    for (;;) {
        const std::size_t begin = pem.find(kBegin, at);
        if (!isBlank(pem, at, begin == std::string::npos ? pem.size() : begin))
            throw KeyError("text outside a PEM block");
        if (begin == std::string::npos)
            return keys;
        const std::size_t end = pem.find(kEnd, begin);
        const std::size_t close = end == std::string::npos ? end : pem.find(kDashes, end + kEnd.size());
        if (close == std::string::npos)
            throw KeyError("a PEM block that does not end");
        at = close + kDashes.size();
        keys.add(Ed25519Key::fromPublicPem(pem.substr(begin, at - begin) + "\n"));
    }
}

TrustedKeys TrustedKeys::fromFiles(const std::vector<std::string>& paths) {
    TrustedKeys keys;
    for (const std::string& path : paths) {
        const Ed25519Key key = Ed25519Key::fromFile(path);
        keys.add(key.hasPrivateKey() ? Ed25519Key::fromPublicPem(key.publicPem()) : key);
    }
    return keys;
}

void TrustedKeys::add(Ed25519Key key) {
    keys_.push_back(std::move(key));
}

bool TrustedKeys::verify(const std::string& message, const std::string& signature) const {
    for (const Ed25519Key& key : keys_) {
        if (key.verify(message, signature))
            return true;
    }
    return false;
}
