#pragma once

#include <string>

// A fresh random (version 4) UUID in its upper-case hyphenated 36-character form.
std::string makeUpperUuid();
