#include "PackedArchive.h"

#include "trust/Sha256.h"

#include <ChildSpawn.h>
#include <ProcessCapture.h>

#include <QFile>
#include <QTemporaryFile>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

struct Descriptor {
    int fd = -1;
    ~Descriptor() { reset(); }
    void reset() {
        if (fd >= 0)
            ::close(fd);
        fd = -1;
    }
};

std::runtime_error failure(const std::string& text) {
    return std::runtime_error(text);
}

std::string readErrors(std::FILE* errors) {
    std::string text;
    std::rewind(errors);
    char buffer[4096];
    std::size_t got;
    while ((got = std::fread(buffer, 1, sizeof buffer, errors)) > 0)
        text.append(buffer, got);
    while (!text.empty() && (text.back() == '\n' || text.back() == ' '))
        text.pop_back();
    return text;
}

} // namespace

PackedArchive PackedArchive::make(const QString& folder, const QStringList& members, const QString& path) {
    // The names go to tar in a file, NUL-separated, so no name is ever read as an option.
    QTemporaryFile names;
    if (!names.open())
        throw failure("cannot make a temporary file: " + names.errorString().toStdString());
    for (const QString& member : members)
        names.write(QFile::encodeName(member) + '\0');
    if (!names.flush())
        throw failure("cannot write a temporary file: " + names.errorString().toStdString());

    std::unique_ptr<std::FILE, int (*)(std::FILE*)> errors(std::tmpfile(), &std::fclose);
    int pipe[2];
    if (!errors || ::pipe2(pipe, O_CLOEXEC) != 0)
        throw failure(std::string("cannot start tar: ") + std::strerror(errno));
    Descriptor reading{pipe[0]};
    Descriptor writing{pipe[1]};

    QFile output(path);
    if (!path.isEmpty() && !output.open(QIODevice::WriteOnly | QIODevice::NewOnly))
        throw failure(path.toStdString() + ": cannot be written: " + output.errorString().toStdString());

    const std::vector<std::string> arguments{
        "tar", "-czf", "-", "--sort=name", "--owner=0", "--group=0", "--numeric-owner",
        "-C", QFile::encodeName(folder).toStdString(), "--null", "--verbatim-files-from",
        "-T", QFile::encodeName(names.fileName()).toStdString()};
    std::vector<const char*> argv;
    for (const std::string& argument : arguments)
        argv.push_back(argument.c_str());
    argv.push_back(nullptr);
    const pid_t tar = spawnTiedToParent("/usr/bin/tar", argv, writing.fd, ::fileno(errors.get()));
    writing.reset();

    PackedArchive archive;
    Sha256 digest;
    std::string writeError;
    std::vector<char> buffer(1 << 20);
    for (;;) {
        const ssize_t got = ::read(reading.fd, buffer.data(), buffer.size());
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            break;
        digest.update(buffer.data(), std::size_t(got));
        archive.size += got;
        if (output.isOpen() && writeError.empty() && output.write(buffer.data(), got) != got)
            writeError = output.errorString().toStdString();
    }
    reading.reset();
    int status = 0;
    while (::waitpid(tar, &status, 0) < 0 && errno == EINTR) {
    }
    if (output.isOpen() && writeError.empty() && !output.flush())
        writeError = output.errorString().toStdString();
    output.close();

    const std::int32_t exit = ProcessCapture::statusFromWait(status);
    if (exit != 0 || !writeError.empty()) {
        if (!path.isEmpty())
            QFile::remove(path);
        if (!writeError.empty())
            throw failure(path.toStdString() + ": cannot be written: " + writeError);
        const std::string text = readErrors(errors.get());
        throw failure(text.empty() ? "tar failed (status " + std::to_string(exit) + ")" : text);
    }
    archive.sha256 = digest.finishHex();
    return archive;
}
