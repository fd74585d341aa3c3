#pragma once

#include "InstallSandbox.h"
#include "TreeSnapshot.h"

#include "formats/ChunkIndex.h"
#include "formats/ChunkStore.h"
#include "formats/TreeChunker.h"

#include <QCryptographicHash>
#include <QProcess>
#include <QRandomGenerator>
#include <QSet>

namespace ChunkedInstallData {

inline QByteArray noise(qsizetype size, quint32 seed) {
    QByteArray bytes(size, '\0');
    QRandomGenerator generator(seed);
    generator.fillRange(reinterpret_cast<quint32*>(bytes.data()), size / 4);
    return bytes;
}

inline QByteArray prose(int lines) {
    QByteArray text;
    for (int i = 0; i < lines; ++i)
        text += "line " + QByteArray::number(i) + " of the level script, spawn point " + QByteArray::number(i * 7) + '\n';
    return text;
}

inline QString sha256Of(const QByteArray& bytes) {
    return QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex());
}

// The chunk of `index` named `sha256`.
inline ChunkRef chunkNamed(const ChunkIndex& index, const QString& sha256) {
    for (const ChunkIndexEntry& entry : index.entries)
        for (const ChunkRef& chunk : entry.chunks)
            if (chunk.sha256 == sha256)
                return chunk;
    return {};
}

} // namespace ChunkedInstallData


using namespace ChunkedInstallData;

// Releases that also come as chunks, installed into a sandbox: a small build with a large file,
// published as archive, index and chunks in the server's one store, and, when asked, a pack.
class ChunkedInstallSandbox : public InstallSandbox {
protected:

    // A build of a few files, a nested and an empty folder and a link inside; `edited` changes a
    // few bytes in the middle of the large file and adds one.
    static void makeTree(const QString& folder, bool edited) {
        TestFiles::makeBuild(folder);
        QByteArray big = noise(1536 * 1024, 7);
        if (edited)
            big.replace(700 * 1024, 5, "EDIT!");
        TestFiles::writeFile(folder + QStringLiteral("/data/big.pak"), big);
        TestFiles::writeFile(folder + QStringLiteral("/data/levels/one.txt"), prose(4000), 0600);
        TestFiles::makeFolder(folder + QStringLiteral("/saves"));
        QVERIFY(QFile::link(QStringLiteral("levels/one.txt"), folder + QStringLiteral("/data/current")));
        if (edited)
            TestFiles::writeFile(folder + QStringLiteral("/data/new.pak"), noise(200 * 1024, 11));
    }

    struct Release {
        QString tree;
        QString archive;
        ReleaseManifest manifest;
        int chunks = 0; // distinct chunks in its index
    };
    Release old_;

    // Publishes `tree` as archive, index and chunks in the server's one store, and with `packed`
    // its chunks in a pack too (packs/NAME.pack), as pack --chunk-pack lays them out.
    Release publish(const QString& name, bool edited, bool packed = false) {
        Release release;
        release.tree = scratch(name);
        makeTree(release.tree, edited);
        release.archive = scratch(name + QStringLiteral(".tar.gz"));
        TestArchives::create(release.archive, release.tree, {QStringLiteral("zentho"), QStringLiteral("data"),
                                                             QStringLiteral("saves")});
        QSet<QString> names;
        QByteArray pack;
        QHash<QString, qint64> stored;
        ChunkIndex index = TreeChunker::index(
            release.tree, kDefaultChunkSizes,
            [&](const ChunkIndexEntry&, const ChunkRef& chunk, std::uint64_t, const unsigned char* data, std::size_t size) {
                if (names.contains(chunk.sha256))
                    return;
                names.insert(chunk.sha256);
                const QByteArray frame = ChunkStore::compress(reinterpret_cast<const char*>(data), size);
                server_->writeFile(QStringLiteral("store/") + ChunkStore::relativePath(chunk.sha256), frame);
                pack += frame;
                stored.insert(chunk.sha256, frame.size());
            });
        release.chunks = int(names.size());
        if (packed) {
            index.stored = stored;
            server_->writeFile(QStringLiteral("packs/%1.pack").arg(name), pack);
        }
        const QByteArray indexBytes = index.encode();
        server_->writeFile(QStringLiteral("indexes/%1.json").arg(name), indexBytes);
        release.manifest = manifestFor(name, serve(release.archive), release.archive);
        release.manifest.chunks = ReleaseChunks{server_->url(QStringLiteral("/indexes/%1.json").arg(name)),
                                                sha256Of(indexBytes),
                                                server_->url(QStringLiteral("/store"))};
        if (packed)
            release.manifest.chunks->pack = server_->url(packPath(release));
        return release;
    }

    // The previous build becomes `tree`, as if it had been installed from it.
    void makeCurrent(const QString& tree) {
        QVERIFY(QDir(previousBuild()).removeRecursively());
        QCOMPARE(QProcess::execute(QStringLiteral("/bin/cp"), {QStringLiteral("-a"), tree, previousBuild()}), 0);
    }

    // 0.3.0 installed and current, and 0.3.1 published beside it: what every update here starts from.
    Release publishUpdateOverCurrent() {
        old_ = publish(QStringLiteral("0.3.0"), false);
        makeCurrent(old_.tree);
        return publish(QStringLiteral("0.3.1"), true);
    }

    // Installs `update` and checks it came from its archive alone, to the right tree.
    void verifyInstalledFromTheArchive(const Release& update) {
        const int before = requestsUnder(QStringLiteral("/store/"));
        const int archiveBefore = archiveRequests(update);
        QUrl folder;
        QCOMPARE(outcomeOf(install(update.manifest, &folder)), QStringLiteral("ok"));
        QCOMPARE(statuses_, (QStringList{kDownloading, kInstalling}));
        QCOMPARE(requestsUnder(QStringLiteral("/store/")), before);
        QCOMPARE(archiveRequests(update), archiveBefore + 1);
        verifyTreeOf(update, folder);
    }

    // The distinct chunks of `release` that the build in `folder` does not hold: what installing it
    // fetches when that build is the only one here.
    static int chunksNotIn(const Release& release, const QString& folder) {
        QSet<QString> wanted, there;
        for (const ChunkIndexEntry& entry : TreeChunker::index(release.tree, kDefaultChunkSizes).entries)
            for (const ChunkRef& chunk : entry.chunks)
                wanted.insert(chunk.sha256);
        for (const ChunkIndexEntry& entry : TreeChunker::index(folder, kDefaultChunkSizes).entries)
            for (const ChunkRef& chunk : entry.chunks)
                there.insert(chunk.sha256);
        return int((wanted - there).size());
    }

    // The store paths asked for in `log`, of the lines that hold `answer` (every line when empty).
    static QSet<QString> storeGets(const QString& log, const QString& answer) {
        QSet<QString> paths;
        for (const QString& line : log.split(QLatin1Char('\n'))) {
            const qsizetype at = line.indexOf(QStringLiteral("\"GET /store/"));
            if (at >= 0 && (answer.isEmpty() || line.contains(answer)))
                paths.insert(line.mid(at + 5, line.indexOf(QLatin1Char(' '), at + 5) - at - 5));
        }
        return paths;
    }

    // Where `release`'s pack is on the server.
    static QString packPath(const Release& release) {
        return QStringLiteral("/packs/%1.pack").arg(release.manifest.version);
    }

    int requestsUnder(const QString& prefix) const {
        int count = 0;
        for (const QString& line : server_->accessLog().split(QLatin1Char('\n')))
            count += line.contains(QStringLiteral("\"GET ") + prefix) ? 1 : 0;
        return count;
    }
    int archiveRequests(const Release& release) const {
        return requestsUnder(release.manifest.url.path());
    }

    void verifyTreeOf(const Release& release, const QUrl& folder) {
        verifyInstalled(release.manifest.version, folder);
        QCOMPARE(TreeSnapshot::of(folder.toLocalFile()),
                 TreeSnapshot::of(installedByTar(release)));
        QVERIFY(!QFileInfo::exists(home_->launcherRoot() + QStringLiteral("/chunks")));
        QCOMPARE(QDir(home_->launcherRoot()).entryList({QStringLiteral("chunk-build-*")}, QDir::AllEntries), QStringList());
    }
    // The archive unpacked as the archive path unpacks it, executable made runnable.
    QString installedByTar(const Release& release) {
        const QString folder = scratch(release.manifest.version + QStringLiteral("-by-tar"));
        if (!QFileInfo::exists(folder)) {
            TestFiles::makeFolder(folder);
            TestArchives::tar({QStringLiteral("-xzf"), release.archive, QStringLiteral("-C"), folder});
            QFile::setPermissions(folder + QStringLiteral("/zentho"),
                                  QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner | QFile::ReadGroup |
                                      QFile::ExeGroup | QFile::ReadOther | QFile::ExeOther);
        }
        return folder;
    }

};
