#pragma once

#include <filesystem>
#include <string>

// Vets a folder before it is packed for release, so that nothing in it could escape the
// launcher's extraction folder or arrive differently from how it was made.
namespace ReleaseTree {

// Walks everything below `root` (symlinks are not followed) and returns the first problem as one
// line naming the entry, or an empty text when there is none. Refused: names that hold a control
// character or are not UTF-8 (tar would print them escaped or the launcher could not read its
// listing), symlinks whose target is absolute or leads out of `root`, and anything that is not a
// file, folder or symlink (devices, pipes, sockets).
std::string firstProblem(const std::filesystem::path& root);

} // namespace ReleaseTree
