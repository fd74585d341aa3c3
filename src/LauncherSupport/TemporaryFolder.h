#pragma once

#include <string>

// The system's temporary folder, decided by one rule for every file the launcher puts there
// (process captures, downloads): $TMPDIR when it names an existing folder by an absolute path,
// otherwise /tmp. A $TMPDIR that is unset, empty, relative or missing never sends a file to a
// surprising place such as the root folder or the working folder. No trailing slash.
std::string temporaryFolder();
