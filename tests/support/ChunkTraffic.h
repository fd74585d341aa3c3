#pragma once

#include <QByteArray>
#include <QList>
#include <QSet>
#include <QString>
#include <QStringList>

struct ChunkIndex;

// What a launcher asked a release server for, read from TestServer::accessLog(), and the chunks of
// a chunk store among it (STORE/ab/<sha256>.zst).
namespace ChunkTraffic {

struct Get {
    QString path;
    int status = 0;
    qint64 bytes = 0; // of the body, as nginx sent it: fewer than the file's when it was cut
    QString protocol; // "HTTP/1.1", "HTTP/2.0"
    qint64 connection = -1; // nginx's serial number of the connection it came on
    QString range;          // the Range header it asked with; empty without one
};

// The GETs of an access log excerpt, in order.
QList<Get> getsIn(const QString& log);
// True when `gets` hold a GET of `path` answered with 200.
bool fetched(const QList<Get>& gets, const QString& path);
// The chunk a GET of a store asked for, or empty.
QString chunkOf(const QString& path);
// The chunks asked for from the store at `storePath` (a path on the server), once per GET.
QStringList chunkGets(const QList<Get>& gets, const QString& storePath);
// The chunks of `index` (with stored sizes: a release with a pack) whose frames lie, whole or in
// part, in what the GETs of the pack at `packPath` asked for, once per GET: every chunk for a GET
// without a Range header.
QStringList packedChunkGets(const QList<Get>& gets, const QString& packPath, const ChunkIndex& index);
// The same for the deltas of `index`: the chunks whose delta was asked for, once per GET.
QStringList packedDeltaGets(const QList<Get>& gets, const QString& packPath, const ChunkIndex& index);
// Every chunk a chunk index names (ChunkIndex JSON), once.
QSet<QString> chunksOf(const QByteArray& index);

} // namespace ChunkTraffic
