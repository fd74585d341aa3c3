#pragma once

// One press of the real launcher's main button, as the chunk benchmarks time it: from the
// launcher's start to the stand-in game's record, watching the storage for the install's steps
// and the most it takes on the disk, and what nginx sent by kind of request.

#include "TestServer.h"

#include <QList>
#include <QPair>
#include <QString>
#include <QStringList>

#include <optional>

// The storage as it was in `pristine`, at the path `data`.
bool restore(const QString& pristine, const QString& data);

// Bytes the files under `folder` take on the disk (allocated blocks), links not followed.
qint64 diskUse(const QString& folder);

struct Press {
    double seconds = -1; // from the launcher's start to the game's record
    // The most the file system of the data folder had in use at once, less what it had before: only
    // the launcher writes there during a press.
    qint64 peakDisk = 0;
    qint64 peakChunks = 0; // of that, about what chunks/ (the chunk cache) took at that moment
    QString cwd;         // where the game ran
    QList<QPair<QString, double>> signs; // when each sign of progress first showed
    std::optional<int> exit;
    QByteArray errors;
};

// Presses the button once on the storage `data` with the game manifest at `manifestUrl`, for
// `version`, watching every few milliseconds for signs of the install's steps in the storage and
// for the game's record.
Press press(const TestServer& server, const QString& data, const QString& manifestUrl, const QString& record,
            const QString& version);

// What nginx sent by kind of request: archives, chunk indexes (JSON or compressed) and chunks
// (from a store or a pack).
struct Sent {
    qint64 bytes = 0;
    int requests = 0;
};
struct Traffic {
    Sent archive, index, chunks;
    int failed = 0; // answers other than 200 and 206

    qint64 total() const { return archive.bytes + index.bytes + chunks.bytes; }
    int requests() const { return archive.requests + index.requests + chunks.requests; }
};

int logLines(const TestServer& server);
// What nginx sent from line `from` of its access log on.
Traffic trafficSince(const TestServer& server, int from);

// A snapshot without the files' modification times.
QStringList withoutTimes(const QStringList& snapshot);

struct Run {
    Press press;
    Traffic traffic;
    QStringList tree;
};

void printRun(const QString& name, const Run& run);

// When `sign` first showed during `press`, or -1.
double stepAt(const Press& press, const char* sign);
