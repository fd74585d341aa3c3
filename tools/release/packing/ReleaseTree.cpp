#include "ReleaseTree.h"

#include <ProcessCapture.h>

#include <cstdio>
#include <system_error>

namespace fs = std::filesystem;

namespace ReleaseTree {

namespace {

std::string nameProblem(const std::string& name) {
    if (!ProcessCapture::isValidUtf8(name))
        return "the name is not UTF-8";
    for (const unsigned char c : name) {
        if (c < 0x20 || c == 0x7f)
            return "the name holds a control character";
    }
    return {};
}

// A path as it can be shown on one line: control characters become \n, \t or \xNN.
std::string printable(const std::string& path) {
    std::string shown;
    for (const unsigned char c : path) {
        if (c == '\n') {
            shown += "\\n";
        } else if (c == '\t') {
            shown += "\\t";
        } else if (c < 0x20 || c == 0x7f) {
            char escaped[5];
            std::snprintf(escaped, sizeof escaped, "\\x%02x", c);
            shown += escaped;
        } else {
            shown += char(c);
        }
    }
    return shown;
}

// True when `target`, read from a symlink in `linkFolder` (relative to the root), stays inside
// the root. Purely lexical: what the target names today outside the tree does not matter, only
// where it would point once unpacked somewhere else.
bool staysInside(const fs::path& linkFolder, const fs::path& target) {
    if (target.is_absolute())
        return false;
    int depth = 0;
    for (const fs::path& part : linkFolder / target) {
        if (part == "..") {
            if (--depth < 0)
                return false;
        } else if (part != "." && !part.empty()) {
            ++depth;
        }
    }
    return true;
}

} // namespace

std::string firstProblem(const fs::path& root) {
    std::error_code error;
    fs::recursive_directory_iterator walk(root, fs::directory_options::none, error);
    if (error)
        return root.string() + ": cannot be read: " + error.message();
    for (; walk != fs::recursive_directory_iterator(); walk.increment(error)) {
        if (error)
            return root.string() + ": cannot be read: " + error.message();
        const fs::path& path = walk->path();
        const fs::path relative = path.lexically_relative(root);
        const std::string shown = printable((root / relative).string());
        if (const std::string problem = nameProblem(path.filename().string()); !problem.empty())
            return shown + ": " + problem;
        const fs::file_status status = walk->symlink_status(error);
        if (error)
            return shown + ": cannot be read: " + error.message();
        if (fs::is_symlink(status)) {
            const fs::path target = fs::read_symlink(path, error);
            if (error)
                return shown + ": cannot be read: " + error.message();
            if (!staysInside(relative.parent_path(), target))
                return shown + ": symlink points outside the folder (-> " + printable(target.string()) + ")";
        } else if (!fs::is_regular_file(status) && !fs::is_directory(status)) {
            return shown + ": not a file, folder or symlink";
        }
    }
    return {};
}

} // namespace ReleaseTree
