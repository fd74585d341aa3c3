#pragma once

// The two releases BenchChunkedUpdate updates between, as zentho-release packs them, and the
// manifests it serves for them.

#include "TestServer.h"

#include <QString>

struct Release {
    QString archive, index, manifest, chunks, pack; // chunks: pack's "chunks:" line
    qint64 archiveBytes = -1, newChunkBytes = -1;
    double seconds = 0;
};

// Packs `source` into `store` (served at /rate8m/chunks) with its chunks packed too, and links its
// archive, index and pack into the server's /builds, which the manifest names as `buildsPath`.
Release packRelease(const TestServer& server, const QString& source, const QString& version, const QString& out,
             const QString& store, const QString& buildsPath);

// How a manifest offers the release: its archive alone, its chunks from the store alone, or its
// chunks from the pack too, as zentho-release wrote it.
enum class Offer { archive, store, pack };

// Serves the manifest of `release` as `offer` says, and everything it names on the server through
// the relay on `relayPort` when given, without nginx's rates; returns its URL.
QString serveRelease(const TestServer& server, const Release& release, const QString& name, Offer offer,
                      quint16 relayPort = 0);
