#pragma once

#include "errors/Failure.h"

#include <QString>

#include <cerrno>
#include <cstring>

// A failed file-system call, carrying what was attempted and the system's reason, for example
// "could not move /a to /b: File exists".
class FileError : public Failure {
public:
    FileError(int err, const QString& attempted)
        : Failure(attempted + QStringLiteral(": ") + QString::fromLocal8Bit(std::strerror(err))),
          code_(err) {}

    // The errno value the call failed with.
    int code() const { return code_; }

private:
    int code_;
};

[[noreturn]] inline void throwFileError(const QString& attempted, int err = errno) {
    throw FileError(err, attempted);
}
