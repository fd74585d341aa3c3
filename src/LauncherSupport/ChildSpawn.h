#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

// Starts `executable` with `argv` (its own name first, a null pointer last) and the caller's
// environment and working folder, with standard output and standard error on the given
// descriptors, and standard input on `standardInput` or, when that is -1, the caller's. The child is killed when the thread that started it ends, so a crash
// or SIGKILL of the launcher never leaves a tar run writing into the launcher's storage on its
// own. Throws std::system_error with the reason the program could not be started (for example
// ENOENT for a missing program), only after that child has been collected.
pid_t spawnTiedToParent(const std::string& executable, const std::vector<const char*>& argv,
                        int standardOutput, int standardError, int standardInput = -1);
