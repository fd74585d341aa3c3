#pragma once

#include <cstdint>
#include <string>
#include <system_error>
#include <vector>

// Runs an external program to completion and hands back its exit status and what it wrote.
// Plain C++ and POSIX on purpose: the application depends on this library, never the reverse.

struct CapturedProcessResult {
    // The child's exit status; a child ended by signal N reports -N, so a killed child can never
    // be mistaken for one that exited with a small positive status.
    std::int32_t status = 0;
    std::string output; // standard output, UTF-8; empty when the bytes were not valid UTF-8
    std::string errors; // standard error, same rule
};

// Thrown when a temporary capture file cannot be created or opened.
class FileWriteError : public std::system_error {
public:
    FileWriteError(int err, const std::string& what)
        : std::system_error(err, std::generic_category(), what) {}
};

namespace ProcessCapture {

// Runs `executable` (an absolute path) with `arguments` (the program name is not prepended),
// waits for it and returns its status and output. The child inherits environment, working folder
// and standard input. Output goes through two temporary files named with one shared UUID, which
// are removed on every path once the child has been started. Throws FileWriteError when the
// temporary files cannot be made, std::system_error when the child cannot be started or its
// output cannot be read back. A non-zero exit status is returned, not thrown.
CapturedProcessResult run(const std::string& executable, const std::vector<std::string>& arguments);

// True when `bytes` is well-formed UTF-8 (no overlongs, surrogates or code points past U+10FFFF).
bool isValidUtf8(const std::string& bytes);

// Termination status from a waitpid() status word, with the signal convention above.
std::int32_t statusFromWait(int waitStatus);

} // namespace ProcessCapture
