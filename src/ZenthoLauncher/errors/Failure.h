#pragma once

#include <QString>

#include <stdexcept>
#include <string>

// Every failure the launcher reports carries the one line a player reads after a status prefix
// such as "Update failed: ". The launcher's own cases (LauncherError) and the failures of the
// services it uses (the network, files, disks, formats, keys, seals) all derive from this one
// base, so a caller catches them alike and describeError() needs no list of types.
class Failure : public std::runtime_error {
public:
    explicit Failure(const QString& description) : std::runtime_error(description.toStdString()) {}
    explicit Failure(const std::string& description) : std::runtime_error(description) {}
    explicit Failure(const char* description) : std::runtime_error(description) {}

    QString description() const { return QString::fromUtf8(what()); }
};

// The kinds of failure, each named after where it arises. The type says which; the text says
// what, in words a player or a publisher can act on.

// A transport failure (no route, refused, TLS, timeout, stalled or too slow body, refused
// redirect, a body larger than the launcher accepts), carrying Qt's own description of it or the
// launcher's one-line reason.
class NetworkError : public Failure {
public:
    using Failure::Failure;
};

// Too little room on a disk for what the launcher is about to write, for example "Not enough
// free space in /home/u/.local/share/Zentho/launcher: 1.2 GB needed, 310 MB free.".
class DiskSpaceError : public Failure {
public:
    using Failure::Failure;
};

// A manifest body that does not decode: not JSON, not an object, a required key missing or null,
// a value of the wrong type, a url that does not parse, or a version that is no plain folder
// name. Reaches the player with its own text; it is deliberately not a LauncherError.
class ManifestDecodingError : public Failure {
public:
    using Failure::Failure;
};

// A release manifest that a launcher requiring signed manifests refuses: no signature, one that no
// trusted key made, or an "expires" member that has passed or cannot be read.
class ManifestSignatureError : public Failure {
public:
    using Failure::Failure;
};

// A chunk index that cannot be made, had or used: a tree entry that cannot be cut, another
// answer than the index, another digest, not JSON, a member missing or of the wrong type, or content that could reach outside the build
// (".." or absolute paths, symlinks leading out, setuid or setgid modes) or does not add up.
class ChunkIndexError : public Failure {
public:
    using Failure::Failure;
};

// A chunk that is not what its name promises: another answer than the chunk, not one zstd frame,
// another size, another digest.
class ChunkStoreError : public Failure {
public:
    using Failure::Failure;
};

// A build that could not be put together from its chunks, or came out other than its index says.
class ChunkAssemblyError : public Failure {
public:
    using Failure::Failure;
};

// The storage folder held by another launcher for longer than this one waits.
class StorageBusyError : public Failure {
public:
    using Failure::Failure;
};

// A key that fails to load, generate or sign.
class KeyError : public Failure {
public:
    using Failure::Failure;
};

// A bundle that cannot be described or sealed, with the entry at fault first, e.g.
// "Contents/fifo: unsupported file type".
class BundleListingError : public Failure {
public:
    using Failure::Failure;
};

// A bundle's Info.json that is there but cannot be read, is larger than it could ever need to be,
// or does not hold a "version" string.
class BundleInfoError : public Failure {
public:
    using Failure::Failure;
};

// A staged launcher bundle that is the launcher already running, although its manifest names
// another version: handing it over would restart the same launcher, which would find the same
// update again on every start.
class StaleLauncherUpdateError : public Failure {
public:
    using Failure::Failure;
};
