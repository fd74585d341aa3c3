// The executable of the launcher bundle, Contents/MacOS/ZenthoLauncher. It loads the launcher
// itself from the bundle's own Contents/Frameworks folder, where every library the launcher needs
// beyond what each desktop provides travels with it, and hands it the command line. It needs
// nothing but the C library, so it always starts: a bundle with a library missing, or a system
// older than the launcher needs, then says so in one line a player can act on instead of the
// dynamic loader's message.

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <dlfcn.h>
#include <gnu/libc-version.h>
#include <unistd.h>

#ifndef ZENTHO_GLIBC_FLOOR
#error "ZENTHO_GLIBC_FLOOR must be defined by the build"
#endif

namespace {

const char kProduct[] = "ZENTHO Launcher";
const char kLibrary[] = "libzentho-launcher.so";
const char kEntry[] = "zenthoLauncherMain";

// Cuts the last `count` components off `path` in place ("/a/b/c", 1 gives "/a/b").
void dropComponents(char* path, int count) {
    for (int i = 0; i < count; ++i) {
        char* slash = std::strrchr(path, '/');
        if (!slash || slash == path)
            return;
        *slash = '\0';
    }
}

// "2.36" against "2.35": true when `have` is at least `need`, compared number by number.
bool atLeast(const char* have, const char* need) {
    for (;;) {
        char* haveEnd = nullptr;
        char* needEnd = nullptr;
        const long a = std::strtol(have, &haveEnd, 10);
        const long b = std::strtol(need, &needEnd, 10);
        if (a != b)
            return a > b;
        if (*haveEnd != '.' || *needEnd != '.')
            return *needEnd != '.';
        have = haveEnd + 1;
        need = needEnd + 1;
    }
}

// One line a player can act on: which library the bundle lacks and where it was looked for.
void reportMissing(const char* name, int length, const char* frameworks) {
    std::fprintf(stderr, "%s cannot start: %.*s is missing from its bundle (%s); download the launcher again.\n",
                 kProduct, length, name, frameworks);
}

// The loader's reason in a player's words: the library that is missing, by name, or the whole
// reason when it is something else. In a sealed bundle every library it carries was found present
// before loading, so one missing now is one the bundle takes from the system, which lacks it:
// downloading the launcher again would not help, installing it would.
void reportLoadFailure(const char* reason, const char* frameworks, bool sealed) {
    const char* const missing = std::strstr(reason, ": cannot open shared object file");
    if (missing) {
        const char* name = reason;
        for (const char* p = reason; p < missing; ++p)
            if (*p == '/')
                name = p + 1;
        if (sealed)
            std::fprintf(stderr, "%s cannot start: this system lacks %.*s, which every desktop provides; install "
                                 "it with the system's package manager.\n",
                         kProduct, int(missing - name), name);
        else
            reportMissing(name, int(missing - name), frameworks);
        return;
    }
    std::fprintf(stderr, "%s cannot start: %s\n", kProduct, reason);
}

// The first library the bundle's seal lists in Contents/Frameworks that is not there, written to
// `missing`; false when none is missing or the bundle carries no seal (a bundle laid out for
// tests, sealed later). Without this check the loader would fall back to a system copy of a
// library the bundle lost, of another version than the rest of the bundle.
bool missingLibrary(const char* contents, char* missing, std::size_t size, bool& sealed) {
    char seal[PATH_MAX];
    if (std::snprintf(seal, sizeof seal, "%s/_CodeSignature/Signature", contents) >= int(sizeof seal))
        return false;
    std::FILE* listing = std::fopen(seal, "re");
    sealed = listing != nullptr;
    if (!listing)
        return false;
    // "file <mode> <sha256> Contents/Frameworks/<soname>": sonames need no escaping.
    const char prefix[] = "Contents/Frameworks/";
    char line[4096];
    bool found = false;
    while (!found && std::fgets(line, sizeof line, listing)) {
        line[std::strcspn(line, "\n")] = '\0';
        char* path = std::strrchr(line, ' ');
        if (std::strncmp(line, "file ", 5) != 0 || !path || std::strncmp(path + 1, prefix, sizeof prefix - 1) != 0)
            continue;
        const char* name = path + sizeof prefix;
        if (std::strspn(name, "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._+-") != std::strlen(name))
            continue;
        char file[PATH_MAX];
        if (std::snprintf(file, sizeof file, "%s/Frameworks/%s", contents, name) < int(sizeof file) &&
            ::access(file, F_OK) != 0) {
            std::snprintf(missing, size, "%s", name);
            found = true;
        }
    }
    std::fclose(listing);
    return found;
}

} // namespace

int main(int argc, char** argv) {
    const char* const system = gnu_get_libc_version();
    if (!atLeast(system, ZENTHO_GLIBC_FLOOR)) {
        std::fprintf(stderr, "%s needs a newer system: the GNU C library %s or later (this one has %s).\n",
                     kProduct, ZENTHO_GLIBC_FLOOR, system);
        return 1;
    }

    char contents[PATH_MAX];
    const ssize_t length = ::readlink("/proc/self/exe", contents, sizeof contents - 1);
    if (length <= 0) {
        std::fprintf(stderr, "%s cannot start: it cannot find its own bundle (/proc is not mounted).\n",
                     kProduct);
        return 1;
    }
    contents[length] = '\0';
    // <bundle>/Contents/MacOS/ZenthoLauncher: the launcher is <bundle>/Contents/Frameworks/<kLibrary>.
    dropComponents(contents, 2);
    char frameworks[PATH_MAX];
    char library[PATH_MAX];
    if (std::snprintf(frameworks, sizeof frameworks, "%s/Frameworks", contents) >= int(sizeof frameworks) ||
        std::snprintf(library, sizeof library, "%s/%s", frameworks, kLibrary) >= int(sizeof library)) {
        std::fprintf(stderr, "%s cannot start: the path of its bundle is too long.\n", kProduct);
        return 1;
    }

    char missing[256];
    bool sealed = false;
    if (missingLibrary(contents, missing, sizeof missing, sealed)) {
        reportMissing(missing, int(std::strlen(missing)), frameworks);
        return 1;
    }

    void* const launcher = ::dlopen(library, RTLD_NOW | RTLD_GLOBAL);
    if (!launcher) {
        reportLoadFailure(::dlerror(), frameworks, sealed);
        return 1;
    }
    using Entry = int (*)(int, char**);
    const auto entry = reinterpret_cast<Entry>(::dlsym(launcher, kEntry));
    if (!entry) {
        std::fprintf(stderr, "%s cannot start: %s lacks %s.\n", kProduct, library, kEntry);
        return 1;
    }
    return entry(argc, argv);
}
