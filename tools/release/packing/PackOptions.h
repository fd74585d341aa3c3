#pragma once

#include <ContentChunker.h>

#include <QString>

#include <optional>
#include <string>
#include <vector>

// What "zentho-release pack" was asked to do.
struct PackOptions {
    QString platform;
    QString version;
    QString executable;
    QString urlBase;
    QString out = QStringLiteral(".");
    QString source;
    bool force = false;
    bool dryRun = false;
    std::vector<std::string> sealKeys;
    std::optional<std::string> signKey;
    std::optional<int> expiresInDays;
    QString chunkStore; // empty without --chunks
    QString chunkStoreUrl;
    ChunkSizes chunkSizes = kDefaultChunkSizes;
    bool compressedIndex = false;
    bool chunkPack = false;
    QString deltaFrom; // the earlier release's chunk index; empty without --delta-from

    // Reads pack's command line and refuses what it cannot pack. Throws UsageError.
    static PackOptions parse(const std::vector<std::string>& arguments);
};
