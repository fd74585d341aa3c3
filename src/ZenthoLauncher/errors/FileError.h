#pragma once

#include <cerrno>
#include <string>
#include <system_error>

#include <QString>

// A failed file-system call, carrying what was attempted and the system's reason, for example
// "could not move /a to /b: File exists".
class FileError : public std::system_error {
public:
    FileError(int err, const QString& attempted)
        : std::system_error(err, std::generic_category(), attempted.toStdString()) {}
};

[[noreturn]] inline void throwFileError(const QString& attempted, int err = errno) {
    throw FileError(err, attempted);
}
