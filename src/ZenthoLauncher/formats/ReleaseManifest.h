#pragma once

#include "errors/Failure.h"
#include "formats/Rollout.h"

#include <QByteArray>
#include <QString>
#include <QUrl>

#include <optional>

// Where a release's build can also be fetched as chunks: the chunk index, its SHA-256 (64 hex
// digits, either case) and the base address of the chunk store; and, when the release has one,
// the same index zstd-compressed (CompressedChunkIndex) and the SHA-256 of that file, and the
// file its chunks are packed in.
struct ReleaseChunks {
    QUrl index;
    QString sha256;
    QUrl store;
    QUrl compressedIndex = QUrl();          // invalid when there is none
    QString compressedSha256 = QString();
    QUrl pack = QUrl();                     // the chunks packed in one file (ChunkPack); invalid when none

    bool operator==(const ReleaseChunks&) const = default;
};

// One downloadable release as the release server describes it. The launcher only reads these.
struct ReleaseManifest {
    QString version;
    QString platform; // "macos-arm64" for the game, "macos-launcher-arm64" for the launcher
    QUrl url;         // the gzip tar archive
    QString sha256;   // 64 hex digits, either case
    QString executable;
    // The optional member "chunks": {"index": URL, "sha256": HEX, "store": URL}, which may add
    // "index_zst": URL and "index_zst_sha256": HEX (launchers that know no compressed index read
    // the JSON one) and "pack": URL (launchers that know no packs read the store). It never makes
    // a manifest fail to decode: one that is malformed is left out, like any key not known here,
    // and the release is then what the five keys say; a malformed compressed index or pack is
    // left out alone.
    std::optional<ReleaseChunks> chunks = std::nullopt; // defaulted, so five-field initialisers stay complete
    // The optional member "rollout" (see Rollout): the share of installations the release is
    // offered to. Malformed, it is left out like "chunks", and the release is offered to all.
    std::optional<Rollout> rollout = std::nullopt;

    // Decodes a whole response body. The five keys are required and read in field order (the
    // first failure is the one reported); other keys are ignored. Checks nothing beyond the JSON
    // types, that `url` parses and that `version` is one plain folder name (not empty, "." or
    // "..", without "/" or control characters). Throws ManifestDecodingError.
    static ReleaseManifest decode(const QByteArray& json);
    // The same five keys in field order, `url` as a string, then "chunks" and "rollout" when
    // there are.
    QByteArray encode() const;

    bool operator==(const ReleaseManifest&) const = default;
};
