#include "trust/BundleListing.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <sstream>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const char* kindName(BundleEntry::Kind kind) {
    switch (kind) {
    case BundleEntry::Kind::directory:
        return "dir";
    case BundleEntry::Kind::file:
        return "file";
    case BundleEntry::Kind::symlink:
        return "link";
    }
    return "?";
}

bool needsEscape(unsigned char c) {
    return c <= 0x20 || c >= 0x7f || c == '%';
}

std::string escape(const std::string& text) {
    static const char digits[] = "0123456789ABCDEF";
    std::string out;
    for (const unsigned char c : text) {
        if (needsEscape(c)) {
            out += '%';
            out += digits[c >> 4];
            out += digits[c & 0xf];
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

int hexValue(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

std::string unescape(const std::string& text, const std::string& line) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            out += text[i];
            continue;
        }
        if (i + 2 >= text.size())
            throw BundleListingError("malformed listing line: " + line);
        const int high = hexValue(text[i + 1]);
        const int low = hexValue(text[i + 2]);
        if (high < 0 || low < 0)
            throw BundleListingError("malformed listing line: " + line);
        out += static_cast<char>(high * 16 + low);
        i += 2;
    }
    return out;
}

// True when a link at `path` with `target` resolves inside the bundle, judged on the text alone:
// an absolute target, or one whose ".." steps climb above the bundle folder, leaves it.
bool targetStaysInside(const std::string& path, const std::string& target) {
    if (target.empty() || target.front() == '/')
        return false;
    long depth = static_cast<long>(std::count(path.begin(), path.end(), '/'));
    std::stringstream parts(target);
    std::string part;
    while (std::getline(parts, part, '/')) {
        if (part.empty() || part == ".")
            continue;
        depth += part == ".." ? -1 : 1;
        if (depth < 0)
            return false;
    }
    return true;
}

struct DirCloser {
    void operator()(DIR* dir) const { ::closedir(dir); }
};

void walk(const std::string& root, const std::string& relative, const std::string& skipped,
          std::vector<BundleEntry>& entries) {
    const std::string folder = relative.empty() ? root : root + "/" + relative;
    std::unique_ptr<DIR, DirCloser> dir(::opendir(folder.c_str()));
    if (!dir)
        throw BundleListingError((relative.empty() ? folder : relative) +
                                 ": cannot be read: " + std::strerror(errno));
    while (const dirent* item = ::readdir(dir.get())) {
        const std::string name = item->d_name;
        if (name == "." || name == "..")
            continue;
        const std::string path = relative.empty() ? name : relative + "/" + name;
        if (path == skipped)
            continue;
        struct stat info {};
        if (::fstatat(::dirfd(dir.get()), item->d_name, &info, AT_SYMLINK_NOFOLLOW) != 0)
            throw BundleListingError(path + ": cannot be read: " + std::strerror(errno));
        BundleEntry entry{path, BundleEntry::Kind::file, info.st_mode & 07777u, {}};
        if (S_ISDIR(info.st_mode)) {
            entry.kind = BundleEntry::Kind::directory;
            entries.push_back(entry);
            walk(root, path, skipped, entries);
            continue;
        }
        if (S_ISLNK(info.st_mode)) {
            std::string target(static_cast<std::size_t>(info.st_size) + 1, '\0');
            const ssize_t n = ::readlink((root + "/" + path).c_str(), target.data(), target.size());
            if (n < 0 || static_cast<std::size_t>(n) >= target.size())
                throw BundleListingError(path + ": cannot read the symlink");
            target.resize(static_cast<std::size_t>(n));
            if (!targetStaysInside(path, target))
                throw BundleListingError(path + ": symlink points outside the bundle");
            entry.kind = BundleEntry::Kind::symlink;
            entry.detail = target;
        } else if (S_ISREG(info.st_mode)) {
            entry.detail = fileSha256Hex(root + "/" + path, path);
        } else {
            throw BundleListingError(path + ": unsupported file type");
        }
        entries.push_back(entry);
    }
}

} // namespace

std::string fileSha256Hex(const std::filesystem::path& file, const std::string& name) {
    const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        throw BundleListingError(name + ": cannot be read: " + std::strerror(errno));
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                    &EVP_MD_CTX_free);
    bool ok = context && EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) == 1;
    char buffer[64 * 1024];
    while (ok) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            ok = n == 0;
            break;
        }
        ok = EVP_DigestUpdate(context.get(), buffer, static_cast<std::size_t>(n)) == 1;
    }
    ::close(fd);
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (!ok || EVP_DigestFinal_ex(context.get(), digest, &length) != 1)
        throw BundleListingError(name + ": cannot be read");
    static const char digits[] = "0123456789abcdef";
    std::string hex;
    for (unsigned int i = 0; i < length; ++i) {
        hex += digits[digest[i] >> 4];
        hex += digits[digest[i] & 0xf];
    }
    return hex;
}

std::vector<BundleEntry> listBundle(const std::filesystem::path& bundle, const std::string& skipped) {
    std::vector<BundleEntry> entries;
    walk(bundle.string(), {}, skipped, entries);
    std::sort(entries.begin(), entries.end(),
              [](const BundleEntry& a, const BundleEntry& b) { return a.path < b.path; });
    return entries;
}

std::string formatListing(const std::vector<BundleEntry>& entries) {
    std::string text;
    for (const BundleEntry& entry : entries) {
        char mode[8];
        std::snprintf(mode, sizeof mode, "%04o", entry.mode & 07777u);
        text += kindName(entry.kind);
        text += ' ';
        text += mode;
        text += ' ';
        // "-" stands for no detail, so a detail that is itself "-" is written encoded.
        text += entry.detail.empty() ? std::string("-")
                : entry.detail == "-" ? std::string("%2D")
                                      : escape(entry.detail);
        text += ' ';
        text += escape(entry.path);
        text += '\n';
    }
    return text;
}

std::vector<BundleEntry> parseListing(const std::string& text) {
    std::vector<BundleEntry> entries;
    std::stringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        std::stringstream fields(line);
        std::string kind, mode, detail, path, extra;
        if (!(fields >> kind >> mode >> detail >> path) || (fields >> extra) || mode.size() != 4 ||
            mode.find_first_not_of("01234567") != std::string::npos)
            throw BundleListingError("malformed listing line: " + line);
        BundleEntry entry;
        if (kind == "dir")
            entry.kind = BundleEntry::Kind::directory;
        else if (kind == "file")
            entry.kind = BundleEntry::Kind::file;
        else if (kind == "link")
            entry.kind = BundleEntry::Kind::symlink;
        else
            throw BundleListingError("malformed listing line: " + line);
        entry.mode = static_cast<unsigned>(std::stoul(mode, nullptr, 8));
        entry.detail = detail == "-" ? std::string() : unescape(detail, line);
        entry.path = unescape(path, line);
        entries.push_back(entry);
    }
    return entries;
}
