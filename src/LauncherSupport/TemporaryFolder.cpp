#include <TemporaryFolder.h>

#include <cstdlib>
#include <sys/stat.h>

std::string temporaryFolder() {
    // Read on every call rather than cached: the environment is the caller's to change, and each
    // file goes where the rule points at the moment it is made.
    const char* tmp = std::getenv("TMPDIR");
    std::string dir = (tmp && *tmp == '/') ? tmp : "";
    struct stat info {};
    if (dir.empty() || ::stat(dir.c_str(), &info) != 0 || !S_ISDIR(info.st_mode))
        return "/tmp";
    while (dir.size() > 1 && dir.back() == '/')
        dir.pop_back();
    return dir;
}
