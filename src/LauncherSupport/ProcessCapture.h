#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include <sys/types.h>

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

// A started child whose standard output and error go to its two capture files. The child is
// killed if this process dies first, so nothing it started outlives it unseen. Destroying a
// child that has not been collected kills and collects it; the capture files go either way.
class Running {
public:
    Running(Running&& other) noexcept;
    Running& operator=(Running&& other) = delete;
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;
    ~Running();

    pid_t pid() const;
    // The result once the child has exited; nothing while it still runs. Never blocks.
    std::optional<CapturedProcessResult> poll();
    // Blocks until the child has exited and returns its result.
    CapturedProcessResult wait();

private:
    struct State;
    explicit Running(std::unique_ptr<State> state);
    CapturedProcessResult collect(int waitStatus);
    friend Running start(const std::string&, const std::vector<std::string>&, int);

    std::unique_ptr<State> state_;
};

// Starts `executable` (an absolute path) with `arguments` (the program name is not prepended).
// The child inherits environment, working folder and, unless `standardInput` names a descriptor
// to read instead, standard input. Output goes through two temporary files named with one shared
// UUID, which are removed on every path once the child has been started (at once when it reads
// from `standardInput`). Throws FileWriteError
// when the temporary files cannot be made, and std::system_error when the child cannot be
// started.
Running start(const std::string& executable, const std::vector<std::string>& arguments,
              int standardInput = -1);

// start() and then wait(): returns the child's status and output once it has exited. A non-zero
// exit status is returned, not thrown; std::system_error when the output cannot be read back.
CapturedProcessResult run(const std::string& executable, const std::vector<std::string>& arguments);

// True when `bytes` is well-formed UTF-8 (no overlongs, surrogates or code points past U+10FFFF).
bool isValidUtf8(const std::string& bytes);

// Termination status from a waitpid() status word, with the signal convention above.
std::int32_t statusFromWait(int waitStatus);

} // namespace ProcessCapture
