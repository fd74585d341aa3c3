// zentho-release keygen: makes an Ed25519 key pair that seals launcher bundles or signs manifests.

#include "ReleaseCommand.h"

#include "trust/Ed25519Key.h"

#include <cerrno>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const char kUsage[] =
    "usage: zentho-release keygen [--force] KEY\n"
    "\n"
    "Makes a new Ed25519 key pair: the private key goes to KEY (PEM, mode 0600), the public key\n"
    "to KEY.pub (PEM, mode 0644). Existing files are kept unless --force is given.\n"
    "Configure the launcher build with -DZENTHO_SIGNING_PUBLIC_KEY=KEY.pub to make it trust\n"
    "bundles sealed with KEY, or with -DZENTHO_MANIFEST_PUBLIC_KEYS=KEY.pub to make it require\n"
    "manifests signed with KEY (each takes several keys separated by \";\").\n";

bool exists(const std::string& path) {
    struct stat info {};
    return ::lstat(path.c_str(), &info) == 0;
}

// Writes through a sibling created with `mode` from the start, so the private key is never
// readable by others, not even for a moment, and a half-written key never takes the name.
void writeKeyFile(const std::string& path, const std::string& text, mode_t mode) {
    const std::string temporary = path + ".partial-" + std::to_string(::getpid());
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    if (fd < 0)
        throw std::runtime_error(path + ": cannot be written: " + std::strerror(errno));
    const bool written = ::fchmod(fd, mode) == 0 &&
                         ::write(fd, text.data(), text.size()) ==
                             static_cast<ssize_t>(text.size()) &&
                         ::fsync(fd) == 0;
    const int err = errno;
    if (::close(fd) != 0 || !written || ::rename(temporary.c_str(), path.c_str()) != 0) {
        ::unlink(temporary.c_str());
        throw std::runtime_error(path + ": cannot be written: " + std::strerror(written ? errno : err));
    }
}

int runKeygen(const std::vector<std::string>& arguments) {
    bool force = false;
    std::string key;
    for (const std::string& argument : arguments) {
        if (argument == "--force")
            force = true;
        else if (!argument.empty() && argument[0] == '-')
            throw UsageError("unknown option " + argument);
        else if (key.empty())
            key = argument;
        else
            throw UsageError("more than one KEY given");
    }
    if (key.empty())
        throw UsageError("KEY is missing");
    const std::string publicKey = key + ".pub";
    for (const std::string& path : {key, publicKey}) {
        if (!force && exists(path))
            throw std::runtime_error(path + " already exists; use --force to replace it");
        // Refused before anything is written: --force must never leave a new private key beside
        // an old public one because the second name could not be replaced.
        struct stat info {};
        if (::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode))
            throw std::runtime_error(path + " is a folder");
    }
    const Ed25519Key pair = Ed25519Key::generate();
    writeKeyFile(key, pair.privatePem(), 0600);
    writeKeyFile(publicKey, pair.publicPem(), 0644);
    return 0;
}

} // namespace

const ReleaseCommand keygenCommand{"keygen", "make an Ed25519 key pair for seals or manifests",
                                   kUsage, &runKeygen};
