#pragma once

#include "errors/Failure.h"

#include <filesystem>
#include <string>
#include <vector>

// The canonical description of an application bundle that its signature covers: every entry
// below the bundle folder with its kind, permission bits and content (a file's SHA-256, a
// symlink's target). The small verifier program that ships inside the bundle and the release
// tool share it with the launcher.

struct BundleEntry {
    enum class Kind { directory, file, symlink };

    std::string path; // relative to the bundle folder, "/"-separated, e.g. "Contents/MacOS/x"
    Kind kind = Kind::file;
    unsigned mode = 0;  // permission bits only (07777)
    std::string detail; // file: lower-case hex SHA-256; symlink: its target; folder: empty

    bool operator==(const BundleEntry&) const = default;
};

// Every entry below `bundle` except the one at `skipped` (a relative path), sorted bytewise by
// path. Symlinks are recorded, never followed; one that points outside the bundle, and any entry
// that is not a folder, regular file or symlink, throws BundleListingError.
std::vector<BundleEntry> listBundle(const std::filesystem::path& bundle, const std::string& skipped);

// One line per entry: "<kind> <mode> <detail> <path>\n" with kind dir, file or link, the mode as
// four octal digits, "-" for an empty detail, and bytes that could blur the line (controls,
// blanks, "%", bytes past ASCII) percent-encoded, so that two different bundles never give the
// same text.
std::string formatListing(const std::vector<BundleEntry>& entries);
// The inverse of formatListing; throws BundleListingError on any malformed line.
std::vector<BundleEntry> parseListing(const std::string& text);

// Lower-case hex SHA-256 of a file's bytes, read in chunks. Throws BundleListingError naming
// `name` when the file cannot be read.
std::string fileSha256Hex(const std::filesystem::path& file, const std::string& name);
