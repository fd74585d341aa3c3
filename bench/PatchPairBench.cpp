// The launcher installs the base from its pack, keeping its index; each update then starts
// from a copy of that storage. Every pair has its own chunk store holding the base's chunks and
// its own, so what a pair fetches is what it adds. Bytes and requests are nginx's (its access
// log), the time is press to game.

#include "PatchPairBench.h"

#include "BenchPress.h"
#include "LauncherBundles.h"
#include "PatchPairs.h"
#include "RealLauncher.h"
#include "ReleaseTool.h"
#include "TestServer.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>

namespace {

const qint64 kMiB = 1024 * 1024;
const QString kNew = QStringLiteral("0.3.1");

struct Packed {
    QString manifest, index;
    qint64 archiveBytes = -1, newChunks = -1, newChunkBytes = -1, indexBytes = -1, jsonBytes = -1;
    QString deltas; // "N (B bytes)", when made
};

// Packs `source` into `store`, served at /rate8m/<storeName>, with its archive, index and pack
// linked into the server's <buildsName>, served at /rate50m/<buildsName>; with deltas against the
// release whose index is `deltaFrom`, when given.
Packed pack(const TestServer& server, const QString& source, const QString& version, const QString& out,
            const QString& store, const QString& storeName, const QString& buildsName, int average, bool compressed,
            const QString& deltaFrom = QString()) {
    QStringList chunks{QStringLiteral("--chunks"), store, QStringLiteral("--chunks-url"),
                       server.url(QStringLiteral("/rate8m/") + storeName).toString(), QStringLiteral("--chunk-pack")};
    if (average > 0)
        chunks << QStringLiteral("--chunk-average") << QString::number(average);
    if (compressed)
        chunks << QStringLiteral("--compressed-index");
    if (!deltaFrom.isEmpty())
        chunks << QStringLiteral("--delta-from") << deltaFrom;
    const ReleaseTool::Run run = ReleaseTool::packGame(
        source, version, server.url(QStringLiteral("/rate50m/") + buildsName).toString(), out, chunks, 30 * 60 * 1000);
    Packed packed;
    if (!run.ok()) {
        std::fprintf(stderr, "pack %s failed (status %d): %s\n", qPrintable(version), run.exitCode, run.errors.constData());
        return packed;
    }
    const QString builds = server.documentRoot() + QLatin1Char('/') + buildsName + QLatin1Char('/');
    QDir().mkpath(builds);
    for (const QString& file : QDir(out).entryList(QDir::Files)) {
        if (!file.endsWith(QLatin1String(".json")) || file.contains(QLatin1String(".chunks.")))
            QFile::link(out + QLatin1Char('/') + file, builds + file);
    }
    packed.manifest = run.line(QStringLiteral("manifest"));
    packed.index = run.line(QStringLiteral("index"));
    packed.archiveBytes = QFileInfo(run.line(QStringLiteral("archive"))).size();
    packed.jsonBytes = QFileInfo(packed.index).size();
    packed.indexBytes = QFileInfo(compressed ? run.line(QStringLiteral("compressed index")) : packed.index).size();
    static const QRegularExpression count(QStringLiteral("\\((\\d+) new"));
    packed.newChunks = count.match(run.line(QStringLiteral("chunks"))).captured(1).toLongLong();
    packed.newChunkBytes = run.line(QStringLiteral("new chunk bytes")).section(QLatin1Char(' '), 0, 0).toLongLong();
    packed.deltas = run.line(QStringLiteral("deltas"));
    return packed;
}

QString serveManifest(const TestServer& server, const Packed& packed, const QString& name, bool withChunks) {
    QFile file(packed.manifest);
    file.open(QIODevice::ReadOnly);
    QJsonObject manifest = QJsonDocument::fromJson(file.readAll()).object();
    if (!withChunks)
        manifest.remove(QStringLiteral("chunks"));
    server.writeFile(QStringLiteral("manifests/") + name, QJsonDocument(manifest).toJson());
    return server.url(QStringLiteral("/manifests/") + name).toString();
}

// One chunk size: packs the three builds, installs the base and updates it to each pair, once
// from the archive and once from chunks.
int benchAverage(const QTemporaryDir& work, int average, bool compressed) {
    const auto at = [&](const char* name) { return work.filePath(QString::fromLatin1(name)); };
    std::printf("\nchunk average %d bytes%s, %s index\n", average > 0 ? average : 65536, average > 0 ? "" : " (the default)",
                compressed ? "compressed" : "JSON");
    TestServer server;
    const QString hotfixStore = at("store-hotfix"), engineStore = at("store-engine");
    QFile::link(hotfixStore, server.documentRoot() + QStringLiteral("/chunks-hotfix"));
    QFile::link(engineStore, server.documentRoot() + QStringLiteral("/chunks-engine"));
    const Packed base = pack(server, at("base"), QStringLiteral("0.3.0"), at("out-base"), hotfixStore,
                             QStringLiteral("chunks-hotfix"), QStringLiteral("builds-base"), average, compressed);
    if (base.archiveBytes < 0 ||
        QProcess::execute(QStringLiteral("/bin/cp"), {QStringLiteral("-al"), hotfixStore, engineStore}) != 0)
        return 1;
    const struct {
        const char* name;
        Packed packed;
    } pairs[] = {
        {"hotfix", pack(server, at("hotfix"), kNew, at("out-hotfix"), hotfixStore, QStringLiteral("chunks-hotfix"),
                        QStringLiteral("builds-hotfix"), average, compressed, base.index)},
        {"engine patch", pack(server, at("engine"), kNew, at("out-engine"), engineStore,
                              QStringLiteral("chunks-engine"), QStringLiteral("builds-engine"), average, compressed,
                              base.index)},
    };
    for (const auto& pair : pairs) {
        if (pair.packed.archiveBytes < 0)
            return 1;
    }

    const QString data = at("data"), pristine = at("pristine"), record = at("record");
    const QString root = data + QStringLiteral("/Zentho/launcher");
    const Press installed =
        press(server, data, serveManifest(server, base, QStringLiteral("base.json"), true), record, QStringLiteral("0.3.0"));
    if (installed.cwd != root + QStringLiteral("/versions/0.3.0") || !QDir().rename(data, pristine)) {
        std::fprintf(stderr, "the base was not installed (game in \"%s\")\n", qPrintable(installed.cwd));
        return 1;
    }
    const QString expected = root + QStringLiteral("/versions/") + kNew;
    int status = 0;
    for (const auto& pair : pairs) {
        const Packed& p = pair.packed;
        const double packShare = 100.0 * double(p.indexBytes + p.newChunkBytes) / double(p.archiveBytes);
        std::printf("%s: archive %lld bytes; pack says index %lld bytes (JSON %lld) + %lld new chunks of %lld bytes = "
                    "%.2f %% of the archive; deltas in the pack: %s\n",
                    pair.name, p.archiveBytes, p.indexBytes, p.jsonBytes, p.newChunks, p.newChunkBytes, packShare,
                    p.deltas.isEmpty() ? "none" : qPrintable(p.deltas));
        Traffic traffic[2];
        Press presses[2];
        for (const bool chunks : {false, true}) {
            const QString manifest = serveManifest(
                server, p, QStringLiteral("%1-%2.json").arg(QString::fromLatin1(pair.name).section(QLatin1Char(' '), 0, 0)).arg(chunks),
                chunks);
            if (!restore(pristine, data))
                return 1;
            const int from = logLines(server);
            presses[chunks] = press(server, data, manifest, record, kNew);
            traffic[chunks] = trafficSince(server, from);
            if (presses[chunks].cwd != expected) {
                std::fprintf(stderr, "%s did not start %s (game in \"%s\")\n", pair.name, qPrintable(kNew),
                             qPrintable(presses[chunks].cwd));
                return 1;
            }
        }
        const Traffic& c = traffic[1];
        const double share = 100.0 * double(c.total()) / double(p.archiveBytes);
        std::printf("  archive: press->game %6.2f s, %lld bytes in %d requests\n", presses[0].seconds,
                    traffic[0].total(), traffic[0].requests());
        std::printf("  chunks:  press->game %6.2f s, %lld bytes = %.2f %% of the archive (index %lld in %d, chunks "
                    "%lld in %d requests)%s%s\n",
                    presses[1].seconds, c.total(), share, c.index.bytes, c.index.requests, c.chunks.bytes,
                    c.chunks.requests, c.archive.requests ? " FELL BACK TO THE ARCHIVE" : "",
                    c.failed ? " SOME NEITHER 200 NOR 206" : "");
        if (c.archive.requests || c.failed)
            status = 1;
    }
    // A gigabyte of stores, archives and storage a size: gone before the next.
    for (const char* made : {"store-hotfix", "store-engine", "out-base", "out-hotfix", "out-engine", "data", "pristine"}) {
        if (!QDir(at(made)).removeRecursively())
            status = 1;
    }
    return status;
}

} // namespace

int benchPatchPairs(qint64 total, const QStringList& runs) {
    QTemporaryDir work(QDir::tempPath() + QStringLiteral("/BenchPatchPairs-XXXXXX"));
    const auto at = [&](const char* name) { return work.filePath(QString::fromLatin1(name)); };
    const PatchPairs::Made made = PatchPairs::make(at("base"), at("hotfix"), at("engine"), total);
    if (!work.isValid() || made.buildBytes < 0 || !RealLauncher::becomeSubreaper()) {
        std::fprintf(stderr, "cannot write the builds in %s\n", qPrintable(work.path()));
        return 1;
    }
    std::printf("patch pairs: base build %lld bytes (a gzip pack of %lld bytes in it), working folder %s\n",
                made.buildBytes, made.packBytes, qPrintable(work.path()));
    std::fflush(stdout);
    int status = 0;
    for (const QString& run : runs) {
        const bool compressed = run.endsWith(QLatin1Char('z'));
        status = std::max(status, benchAverage(work, (compressed ? run.chopped(1) : run).toInt(), compressed));
        std::fflush(stdout);
    }
    return status;
}
