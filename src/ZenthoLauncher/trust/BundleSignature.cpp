#include "trust/BundleSignature.h"

#include "trust/BundleListing.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>

#include <sys/stat.h>
#include <unistd.h>

namespace {

const std::string kFormatLine = "zentho-bundle-signature 1";
const std::string kSignaturePrefix = "ed25519 ";

std::string toHex(const std::string& bytes) {
    static const char digits[] = "0123456789abcdef";
    std::string hex;
    for (const unsigned char c : bytes) {
        hex += digits[c >> 4];
        hex += digits[c & 0xf];
    }
    return hex;
}

bool fromHex(const std::string& hex, std::string& bytes) {
    if (hex.size() % 2 != 0)
        return false;
    const auto value = [](char c) {
        return c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
    };
    bytes.clear();
    for (std::size_t i = 0; i < hex.size(); i += 2) {
        const int high = value(hex[i]);
        const int low = value(hex[i + 1]);
        if (high < 0 || low < 0)
            return false;
        bytes += static_cast<char>(high * 16 + low);
    }
    return true;
}

std::string octal(unsigned mode) {
    char text[8];
    std::snprintf(text, sizeof text, "%04o", mode & 07777u);
    return text;
}

void makeFolder(const std::string& path) {
    if (::mkdir(path.c_str(), 0755) != 0 && errno != EEXIST)
        throw BundleListingError(path + ": cannot be created: " + std::strerror(errno));
}

void writeFile(const std::string& path, const std::string& bytes) {
    const std::string temporary = path + ".partial-" + std::to_string(::getpid());
    {
        std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
        out << bytes;
        out.flush();
        if (!out)
            throw BundleListingError(temporary + ": cannot be written");
    }
    ::chmod(temporary.c_str(), 0644);
    if (::rename(temporary.c_str(), path.c_str()) != 0) {
        const int err = errno;
        ::unlink(temporary.c_str());
        throw BundleListingError(path + ": cannot be written: " + std::strerror(err));
    }
}

// The first difference between the sealed and the present entries, both sorted by path.
std::string firstDifference(const std::vector<BundleEntry>& sealed,
                            const std::vector<BundleEntry>& present) {
    auto s = sealed.begin();
    auto p = present.begin();
    while (s != sealed.end() || p != present.end()) {
        if (p == present.end() || (s != sealed.end() && s->path < p->path))
            return s->path + ": missing";
        if (s == sealed.end() || p->path < s->path)
            return p->path + ": not signed";
        if (s->kind != p->kind)
            return p->path + ": type changed";
        if (s->detail != p->detail)
            return p->path + (p->kind == BundleEntry::Kind::symlink ? ": symlink target changed"
                                                                    : ": content changed");
        if (s->mode != p->mode)
            return p->path + ": permissions changed (" + octal(s->mode) + " -> " +
                   octal(p->mode) + ")";
        ++s;
        ++p;
    }
    return {};
}

bool isFolder(const std::filesystem::path& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

} // namespace

namespace BundleSignature {

void sign(const std::filesystem::path& bundle, const Ed25519Key& key) {
    if (!isFolder(bundle))
        throw BundleListingError(bundle.string() + ": not a bundle folder");
    const std::string root = bundle.string();
    makeFolder(root + "/Contents");
    makeFolder(root + "/Contents/_CodeSignature");
    const std::string listing = formatListing(listBundle(bundle, kSealPath));
    const std::string signature = key.sign(kFormatLine + "\n" + listing);
    writeFile(root + "/" + kSealPath,
              kFormatLine + "\n" + kSignaturePrefix + toHex(signature) + "\n" + listing);
}

std::string verify(const std::filesystem::path& bundle, const TrustedKeys& trusted) {
    if (!isFolder(bundle))
        return bundle.string() + ": not a bundle folder";
    const std::string sealPath = bundle.string() + "/" + kSealPath;
    struct stat info {};
    if (::lstat(sealPath.c_str(), &info) != 0)
        return bundle.filename().string() + ": not signed (" + kSealPath + " is missing)";
    if (!S_ISREG(info.st_mode))
        return std::string(kSealPath) + ": not a regular file";
    std::ifstream in(sealPath, std::ios::binary);
    const std::string seal{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    if (!in.good() && !in.eof())
        return std::string(kSealPath) + ": cannot be read";

    const std::size_t firstEnd = seal.find('\n');
    const std::size_t secondEnd =
        firstEnd == std::string::npos ? std::string::npos : seal.find('\n', firstEnd + 1);
    if (secondEnd == std::string::npos || seal.compare(0, firstEnd, kFormatLine) != 0 ||
        seal.compare(firstEnd + 1, kSignaturePrefix.size(), kSignaturePrefix) != 0)
        return std::string(kSealPath) + ": malformed";
    const std::size_t hexStart = firstEnd + 1 + kSignaturePrefix.size();
    std::string signature;
    if (!fromHex(seal.substr(hexStart, secondEnd - hexStart), signature))
        return std::string(kSealPath) + ": malformed";
    const std::string listing = seal.substr(secondEnd + 1);
    if (!trusted.verify(kFormatLine + "\n" + listing, signature))
        return std::string(kSealPath) + ": not signed by a trusted key";

    try {
        return firstDifference(parseListing(listing), listBundle(bundle, kSealPath));
    } catch (const BundleListingError& error) {
        return error.what();
    }
}

} // namespace BundleSignature
