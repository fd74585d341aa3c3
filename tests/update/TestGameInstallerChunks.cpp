#include "InstallSandbox.h"
#include "TestRequirements.h"
#include "TreeSnapshot.h"

#include "formats/ChunkStore.h"
#include "formats/TreeChunker.h"
#include "storage/BuildIndexes.h"

#include <QCryptographicHash>
#include <QProcess>
#include <QRandomGenerator>

#include <algorithm>

namespace {

QByteArray noise(qsizetype size, quint32 seed) {
    QByteArray bytes(size, '\0');
    QRandomGenerator generator(seed);
    generator.fillRange(reinterpret_cast<quint32*>(bytes.data()), size / 4);
    return bytes;
}

QByteArray prose(int lines) {
    QByteArray text;
    for (int i = 0; i < lines; ++i)
        text += "line " + QByteArray::number(i) + " of the level script, spawn point " + QByteArray::number(i * 7) + '\n';
    return text;
}

QString sha256Of(const QByteArray& bytes) {
    return QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex());
}

// The chunk of `index` named `sha256`.
ChunkRef chunkNamed(const ChunkIndex& index, const QString& sha256) {
    for (const ChunkIndexEntry& entry : index.entries)
        for (const ChunkRef& chunk : entry.chunks)
            if (chunk.sha256 == sha256)
                return chunk;
    return {};
}

} // namespace

// A release that also comes as chunks: put together from the build already here and the chunks it
// lacks, and whenever anything on that way is wrong, installed from its archive exactly as one
// without chunks.
class TestGameInstallerChunks : public InstallSandbox {
    Q_OBJECT

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

    // Publishes `tree` as archive, index and chunks in the server's one store.
    Release publish(const QString& name, bool edited) {
        Release release;
        release.tree = scratch(name);
        makeTree(release.tree, edited);
        release.archive = scratch(name + QStringLiteral(".tar.gz"));
        TestArchives::create(release.archive, release.tree, {QStringLiteral("zentho"), QStringLiteral("data"),
                                                             QStringLiteral("saves")});
        QSet<QString> names;
        const ChunkIndex index = TreeChunker::index(
            release.tree, kDefaultChunkSizes,
            [&](const ChunkIndexEntry&, const ChunkRef& chunk, std::uint64_t, const unsigned char* data, std::size_t size) {
                names.insert(chunk.sha256);
                server_->writeFile(QStringLiteral("store/") + ChunkStore::relativePath(chunk.sha256),
                                   ChunkStore::compress(reinterpret_cast<const char*>(data), size));
            });
        release.chunks = int(names.size());
        const QByteArray indexBytes = index.encode();
        server_->writeFile(QStringLiteral("indexes/%1.json").arg(name), indexBytes);
        release.manifest = manifestFor(name, serve(release.archive), release.archive);
        release.manifest.chunks = ReleaseChunks{server_->url(QStringLiteral("/indexes/%1.json").arg(name)),
                                                sha256Of(indexBytes),
                                                server_->url(QStringLiteral("/store"))};
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

private slots:
    void initTestCase() {
        ZENTHO_REQUIRE(nginx);
        startServer();
    }
    void init() { setUpSandbox(); }
    void cleanup() { tearDownSandbox(); }

    // The current build is read and cut into chunks, and only what it lacks is fetched.
    void onlyTheMissingChunksAreFetched() {
        const Release update = publishUpdateOverCurrent();
        const int before = requestsUnder(QStringLiteral("/store/"));
        QUrl folder;
        QCOMPARE(outcomeOf(install(update.manifest, &folder)), QStringLiteral("ok"));
        QCOMPARE(statuses_, (QStringList{kDownloading, kInstalling}));
        verifyTreeOf(update, folder);
        QCOMPARE(archiveRequests(update), 0);
        const int fetched = requestsUnder(QStringLiteral("/store/")) - before;
        QVERIFY2(fetched > 0 && fetched <= 6, qPrintable(QString::number(fetched))); // the edit and the new file
        QVERIFY(fetched < update.chunks);
        // The chunks' progress reached the taskbar, ending whole, and was taken off after.
        const QList<double> shown = platform_->taskbarProgress;
        QVERIFY2(shown.size() >= 2, qPrintable(QString::number(shown.size())));
        QCOMPARE(shown.at(shown.size() - 2), 1.0);
        QVERIFY(shown.last() < 0);
        // What the build holds is known to the next update without reading it.
        QVERIFY(BuildIndexes(home_->launcherRoot()).read(folder.toLocalFile()).has_value());
        QVERIFY(BuildIndexes(home_->launcherRoot()).read(previousBuild()).has_value());
    }

    // The twin: a manifest without chunks downloads the archive, to the same tree.
    void withoutChunksTheArchiveIsDownloaded() {
        Release update = publishUpdateOverCurrent();
        update.manifest.chunks.reset();
        verifyInstalledFromTheArchive(update);
    }

    // A chunk whose bytes are not what its name says: the archive installs the release instead.
    void corruptedChunkFallsBackToTheArchive() {
        const Release update = publishUpdateOverCurrent();
        const QByteArray other = QByteArray("not the chunk ").repeated(100);
        // Every chunk of the new file is needed; spoil all of them.
        const ChunkIndex index = TreeChunker::index(update.tree, kDefaultChunkSizes);
        for (const ChunkIndexEntry& entry : index.entries) {
            if (entry.path == QStringLiteral("data/new.pak")) {
                for (const ChunkRef& chunk : entry.chunks)
                    server_->writeFile(QStringLiteral("store/") + ChunkStore::relativePath(chunk.sha256),
                                       ChunkStore::compress(other.constData(), std::size_t(other.size())));
            }
        }
        const int before = requestsUnder(QStringLiteral("/store/"));
        QUrl folder;
        QCOMPARE(outcomeOf(install(update.manifest, &folder)), QStringLiteral("ok"));
        QCOMPARE(statuses_, (QStringList{kDownloading, kInstalling}));
        QVERIFY(requestsUnder(QStringLiteral("/store/")) > before);
        QCOMPARE(archiveRequests(update), 1);
        verifyTreeOf(update, folder);
    }

    // A chunk path that fails after it said "Installing verified update..." (here the build it
    // put together lacks the executable) says "Downloading into ZENTHO storage..." again while
    // the archive downloads, and the archive installs the release.
    void failureAfterInstallingShowsTheDownloadAgain() {
        Release update = publishUpdateOverCurrent();
        ChunkIndex index = ChunkIndex::decode(
            TestFiles::readFile(server_->documentRoot() + QStringLiteral("/indexes/0.3.1.json")));
        const auto executable = std::find_if(index.entries.begin(), index.entries.end(),
                                             [](const ChunkIndexEntry& entry) { return entry.path == QStringLiteral("zentho"); });
        QVERIFY(executable != index.entries.end());
        index.entries.erase(executable);
        const QByteArray withoutExecutable = index.encode();
        server_->writeFile(QStringLiteral("indexes/no-executable.json"), withoutExecutable);
        update.manifest.chunks->index = server_->url(QStringLiteral("/indexes/no-executable.json"));
        update.manifest.chunks->sha256 = sha256Of(withoutExecutable);
        QUrl folder;
        QCOMPARE(outcomeOf(install(update.manifest, &folder)), QStringLiteral("ok"));
        QCOMPARE(statuses_, (QStringList{kDownloading, kInstalling, kDownloading, kInstalling}));
        QCOMPARE(archiveRequests(update), 1);
        verifyTreeOf(update, folder);
    }

    // An index that is not the one the manifest names is never read: no chunk is asked for.
    void indexWithAnotherDigestIsNeverUsed() {
        Release update = publishUpdateOverCurrent();
        update.manifest.chunks->sha256 = old_.manifest.chunks->sha256;
        verifyInstalledFromTheArchive(update);
        QVERIFY(!BuildIndexes(home_->launcherRoot()).read(home_->versionsRoot() + QStringLiteral("/0.3.1")).has_value());
    }

    // Indexes no release tool writes, served with the digest the manifest gives: each is refused
    // before anything of it is acted on, and the archive installs the release.
    void hostileIndexIsRefused_data() {
        QTest::addColumn<QByteArray>("entry");
        QTest::newRow("dot-dot") << QByteArray(R"({"path":"../escape","kind":"folder","mode":493})");
        QTest::newRow("absolute") << QByteArray(R"({"path":"/tmp/escape","kind":"folder","mode":493})");
        QTest::newRow("link out") << QByteArray(R"({"path":"out","kind":"symlink","target":"../../outside"})");
        QTest::newRow("setuid") << QByteArray(R"({"path":"suid","kind":"folder","mode":2541})");
    }
    void hostileIndexIsRefused() {
        QFETCH(QByteArray, entry);
        Release update = publishUpdateOverCurrent();
        QByteArray hostile = TestFiles::readFile(server_->documentRoot() + QStringLiteral("/indexes/0.3.1.json"));
        QVERIFY(hostile.contains("\"entries\":["));
        hostile.replace("\"entries\":[", "\"entries\":[" + entry + ',');
        server_->writeFile(QStringLiteral("indexes/hostile.json"), hostile);
        update.manifest.chunks->index = server_->url(QStringLiteral("/indexes/hostile.json"));
        update.manifest.chunks->sha256 = sha256Of(hostile);
        verifyInstalledFromTheArchive(update);
        QCOMPARE(entriesOf(outside()), QStringList());
    }

    // Chunks kept by an earlier try that did not finish are not fetched again.
    void chunksKeptFromAnEarlierTryAreNotFetchedAgain() {
        const Release update = publishUpdateOverCurrent();
        const ChunkIndex index = TreeChunker::index(update.tree, kDefaultChunkSizes);
        QString kept;
        for (const ChunkIndexEntry& entry : index.entries) {
            if (entry.path == QStringLiteral("data/new.pak"))
                kept = entry.chunks.front().sha256;
        }
        const QString keptPath = QStringLiteral("/store/") + ChunkStore::relativePath(kept);
        TestFiles::writeFile(home_->launcherRoot() + QStringLiteral("/chunks/") + kept,
                             ChunkStore::decode(TestFiles::readFile(server_->documentRoot() + keptPath),
                                                chunkNamed(index, kept).size, kept));
        const int keptBefore = requestsUnder(keptPath);
        const int before = requestsUnder(QStringLiteral("/store/"));
        QUrl folder;
        QCOMPARE(outcomeOf(install(update.manifest, &folder)), QStringLiteral("ok"));
        QCOMPARE(requestsUnder(keptPath), keptBefore);
        QVERIFY(requestsUnder(QStringLiteral("/store/")) > before); // the other missing ones
        verifyTreeOf(update, folder);
    }

    // A first install has nothing on this disk to build from: every chunk is fetched once, each
    // file written as its chunks arrive, and the archive is never asked for. The index is kept
    // for the next update.
    void firstInstallComesFromChunksAndKeepsItsIndex() {
        const Release update = publish(QStringLiteral("0.3.1"), true);
        const int before = requestsUnder(QStringLiteral("/store/"));
        QUrl folder;
        QCOMPARE(outcomeOf(install(update.manifest, &folder)), QStringLiteral("ok"));
        QCOMPARE(statuses_, (QStringList{kDownloading, kInstalling}));
        QCOMPARE(archiveRequests(update), 0);
        QCOMPARE(requestsUnder(QStringLiteral("/store/")) - before, chunksNotIn(update, previousBuild()));
        verifyTreeOf(update, folder);
        const QList<double> shown = platform_->taskbarProgress;
        QVERIFY2(shown.size() >= 2, qPrintable(QString::number(shown.size())));
        QCOMPARE(shown.at(shown.size() - 2), 1.0);
        QVERIFY(BuildIndexes(home_->launcherRoot()).read(home_->versionsRoot() + QStringLiteral("/0.3.1")).has_value());
    }

    // The twin: a first install whose chunk is spoilt on the server comes from the archive, to
    // the same tree, with the statuses of any install.
    void firstInstallWithACorruptedChunkComesFromTheArchive() {
        const Release update = publish(QStringLiteral("0.3.1"), true);
        const ChunkIndex index = TreeChunker::index(update.tree, kDefaultChunkSizes);
        const auto big = std::find_if(index.entries.cbegin(), index.entries.cend(),
                                      [](const ChunkIndexEntry& entry) { return entry.path == QStringLiteral("data/big.pak"); });
        QVERIFY(big != index.entries.cend() && big->chunks.size() > 2);
        const QByteArray other = QByteArray("not the chunk ").repeated(100);
        server_->writeFile(QStringLiteral("store/") + ChunkStore::relativePath(big->chunks[1].sha256),
                           ChunkStore::compress(other.constData(), std::size_t(other.size())));
        QUrl folder;
        QCOMPARE(outcomeOf(install(update.manifest, &folder)), QStringLiteral("ok"));
        QCOMPARE(statuses_, (QStringList{kDownloading, kInstalling}));
        QCOMPARE(archiveRequests(update), 1);
        verifyTreeOf(update, folder);
        QVERIFY(BuildIndexes(home_->launcherRoot()).read(home_->versionsRoot() + QStringLiteral("/0.3.1")).has_value());
    }

    // What a first install cut short (here: a chunk not in the store yet, and the archive not on
    // the server) fetched and wrote stays for the next try of the same release, which fetches
    // only what the first did not get and keeps the files already written.
    void firstInstallCutShortGoesOnWhereItStopped() {
        const Release update = publish(QStringLiteral("0.3.1"), true);
        const ChunkIndex index = TreeChunker::index(update.tree, kDefaultChunkSizes);
        const auto added = std::find_if(index.entries.cbegin(), index.entries.cend(),
                                        [](const ChunkIndexEntry& entry) { return entry.path == QStringLiteral("data/new.pak"); });
        QVERIFY(added != index.entries.cend() && added->chunks.size() > 1);
        const QString heldChunk = QStringLiteral("/store/") + ChunkStore::relativePath(added->chunks.back().sha256);
        const QString held = server_->documentRoot() + heldChunk;
        const QString archive = server_->documentRoot() + update.manifest.url.path();
        QVERIFY(QFile::rename(held, held + QStringLiteral(".held")));
        QVERIFY(QFile::rename(archive, archive + QStringLiteral(".held")));
        qsizetype mark = server_->accessLog().size();
        QVERIFY(outcomeOf(install(update.manifest)) != QStringLiteral("ok"));
        server_->awaitLogged();
        const QSet<QString> firstGot = storeGets(server_->accessLog().mid(mark), QStringLiteral(" 200 "));
        QVERIFY(!firstGot.isEmpty());
        const QStringList partial =
            QDir(home_->launcherRoot()).entryList({QStringLiteral("chunk-build-*")}, QDir::Dirs | QDir::NoDotAndDotDot);
        QCOMPARE(partial.size(), 1);
        const QString written = home_->launcherRoot() + QLatin1Char('/') + partial.first() + QStringLiteral("/data/big.pak");
        QCOMPARE(TestFiles::readFile(written), TestFiles::readFile(update.tree + QStringLiteral("/data/big.pak")));
        const QDateTime writtenAt = QFileInfo(written).birthTime();

        QVERIFY(QFile::rename(held + QStringLiteral(".held"), held));
        QVERIFY(QFile::rename(archive + QStringLiteral(".held"), archive));
        mark = server_->accessLog().size();
        QUrl folder;
        QCOMPARE(outcomeOf(install(update.manifest, &folder)), QStringLiteral("ok"));
        server_->awaitLogged();
        const QString again = server_->accessLog().mid(mark);
        const QSet<QString> secondGot = storeGets(again, QString());
        QVERIFY(secondGot.contains(heldChunk));
        QVERIFY2(!secondGot.intersects(firstGot), qPrintable(QStringList((secondGot & firstGot).values()).join(' ')));
        QCOMPARE(int(again.count(QStringLiteral("\"GET /store/"))), int(secondGot.size()));
        QVERIFY(!again.contains(update.manifest.url.path()));
        verifyTreeOf(update, folder);
        if (writtenAt.isValid())
            QCOMPARE(QFileInfo(folder.toLocalFile() + QStringLiteral("/data/big.pak")).birthTime(), writtenAt);
    }

    // The twin: a partial build of another release is no use to this one and goes.
    void partialBuildOfAnotherReleaseGoes() {
        const Release update = publish(QStringLiteral("0.3.1"), true);
        const QString stale = home_->launcherRoot() + QStringLiteral("/chunk-build-") + QString(64, QLatin1Char('a'));
        TestFiles::writeFile(stale + QStringLiteral("/data/big.pak"), "left by another release");
        const int before = requestsUnder(QStringLiteral("/store/"));
        QUrl folder;
        QCOMPARE(outcomeOf(install(update.manifest, &folder)), QStringLiteral("ok"));
        QCOMPARE(requestsUnder(QStringLiteral("/store/")) - before, chunksNotIn(update, previousBuild()));
        verifyTreeOf(update, folder);
    }
};

QTEST_GUILESS_MAIN(TestGameInstallerChunks)
#include "TestGameInstallerChunks.moc"
