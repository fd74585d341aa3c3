#include "BundlePortability.h"

#include "ElfFile.h"
#include "SystemLibraries.h"

#include <QRegularExpression>
#include <QString>

#include <algorithm>
#include <cctype>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

namespace fs = std::filesystem;

namespace {

// QRegularExpression rather than std::regex: GCC 12's <regex> trips -Werror=maybe-uninitialized
// in sanitized builds, and the patterns are plain PCRE.
bool isSystemLibrary(const std::string& soname) {
    static const std::vector<QRegularExpression> patterns = [] {
        std::vector<QRegularExpression> compiled;
        for (const char* pattern : kSystemLibraryPatterns)
            compiled.emplace_back(QString::fromUtf8(pattern));
        return compiled;
    }();
    const QString name = QString::fromStdString(soname);
    return std::any_of(patterns.begin(), patterns.end(),
                       [&](const QRegularExpression& pattern) { return pattern.match(name).hasMatch(); });
}

// "2.36" against "2.35", number by number: true when `version` is newer than `floor`.
bool newerThan(const std::string& version, const std::string& floor) {
    std::size_t a = 0;
    std::size_t b = 0;
    while (a < version.size() || b < floor.size()) {
        const unsigned long left = a < version.size() ? std::stoul(version.substr(a)) : 0;
        const unsigned long right = b < floor.size() ? std::stoul(floor.substr(b)) : 0;
        if (left != right)
            return left > right;
        a = version.find('.', a);
        b = floor.find('.', b);
        a = a == std::string::npos ? version.size() : a + 1;
        b = b == std::string::npos ? floor.size() : b + 1;
    }
    return false;
}

// The number after `prefix` in a version name such as "GLIBC_2.34"; empty when it is not one of
// those (GLIBC_PRIVATE, another library's versions).
std::string numberAfter(const std::string& name, const std::string& prefix) {
    if (name.compare(0, prefix.size(), prefix) != 0 || name.size() == prefix.size())
        return {};
    const std::string number = name.substr(prefix.size());
    return number.find_first_not_of("0123456789.") == std::string::npos && std::isdigit(static_cast<unsigned char>(number[0])) ? number : std::string();
}

// The folder a RUNPATH entry names, with $ORIGIN as the file's own folder; nothing for an entry
// that does not start from $ORIGIN, which leads outside any bundle once it is moved.
std::optional<fs::path> fromOrigin(const std::string& entry, const fs::path& folder) {
    for (const std::string origin : {"$ORIGIN", "${ORIGIN}"})
        if (entry.compare(0, origin.size(), origin) == 0)
            return (folder / ("." + entry.substr(origin.size()))).lexically_normal();
    return std::nullopt;
}

// True when `path` is a file inside `bundle`, its links followed.
bool isInside(const fs::path& path, const fs::path& bundle) {
    std::error_code error;
    const fs::path real = fs::canonical(path, error);
    if (error || !fs::is_regular_file(real, error))
        return false;
    const fs::path root = fs::canonical(bundle, error);
    const auto mismatch = std::mismatch(root.begin(), root.end(), real.begin(), real.end());
    return !error && mismatch.first == root.end();
}

// The folders `elf` at `path` names for its libraries, each from $ORIGIN; a problem when one leads
// outside the bundle.
std::optional<std::string> folderProblem(const ElfFile& elf, const fs::path& path, const fs::path& bundle,
                                         std::vector<fs::path>& folders) {
    for (const std::string& entry : elf.runpath) {
        const std::optional<fs::path> folder = fromOrigin(entry, path.parent_path());
        if (!folder)
            return path.lexically_relative(bundle).string() + " looks for libraries in " + entry +
                   ", outside the bundle";
        folders.push_back(*folder);
    }
    return std::nullopt;
}

// `inherited`: the folders every program of the bundle hands down (a DT_RPATH), which the loader
// also searches for the needs of a library or plugin without a RUNPATH of its own.
std::string problemOf(const ElfFile& elf, const fs::path& path, const fs::path& bundle,
                      const std::vector<fs::path>& inherited) {
    const std::string name = path.lexically_relative(bundle).string();
    if (!elf.x86_64)
        return name + " is not x86-64 code";
    std::vector<fs::path> folders;
    if (const std::optional<std::string> problem = folderProblem(elf, path, bundle, folders))
        return *problem;
    if (!elf.program && (elf.runpath.empty() || elf.inheritedByWhatItLoads))
        folders.insert(folders.end(), inherited.begin(), inherited.end());
    for (const std::string& needed : elf.needed) {
        const bool carried = std::any_of(folders.begin(), folders.end(), [&](const fs::path& folder) {
            return isInside(folder / needed, bundle);
        });
        if (!carried && !isSystemLibrary(needed))
            return name + " needs " + needed + ", which is neither in the bundle nor provided by every desktop";
    }
    for (const ElfFile::Version& version : elf.versions) {
        const std::string glibc = numberAfter(version.name, "GLIBC_");
        if (!glibc.empty() && newerThan(glibc, BundlePortability::glibcFloor()))
            return name + " needs " + version.name + " of " + version.library +
                   ", newer than the GNU C library " + BundlePortability::glibcFloor() + " the bundle may ask for";
        const std::string glibcxx = numberAfter(version.name, "GLIBCXX_");
        if (!glibcxx.empty() && newerThan(glibcxx, BundlePortability::glibcxxFloor()))
            return name + " needs " + version.name + " of " + version.library +
                   ", newer than the C++ runtime GLIBCXX_" + BundlePortability::glibcxxFloor() +
                   " the bundle may ask for";
    }
    return {};
}

} // namespace

namespace BundlePortability {

std::string glibcFloor() {
    return ZENTHO_GLIBC_FLOOR;
}

std::string glibcxxFloor() {
    return ZENTHO_GLIBCXX_FLOOR;
}

std::string problem(const fs::path& bundle) {
    std::vector<fs::path> files;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(bundle))
        if (entry.is_regular_file() && !entry.is_symlink())
            files.push_back(entry.path());
    // The same bundle always names the same first problem.
    std::sort(files.begin(), files.end());
    std::vector<std::pair<fs::path, ElfFile>> elves;
    for (const fs::path& file : files)
        if (std::optional<ElfFile> elf = ElfFile::read(file.string()))
            elves.emplace_back(file, std::move(*elf));
    // Libraries are loaded by every program of the bundle, so only the folders all programs hand
    // down are sure to be searched.
    std::optional<std::vector<fs::path>> inherited;
    for (const auto& [file, elf] : elves) {
        if (!elf.program)
            continue;
        std::vector<fs::path> folders;
        if (!elf.inheritedByWhatItLoads || folderProblem(elf, file, bundle, folders))
            folders.clear();
        if (!inherited)
            inherited = folders;
        else
            std::erase_if(*inherited, [&](const fs::path& folder) {
                return std::find(folders.begin(), folders.end(), folder) == folders.end();
            });
    }
    for (const auto& [file, elf] : elves)
        if (std::string found = problemOf(elf, file, bundle, inherited.value_or(std::vector<fs::path>())); !found.empty())
            return found;
    return {};
}

} // namespace BundlePortability
