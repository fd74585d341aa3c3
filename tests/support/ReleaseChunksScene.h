#pragma once

// zentho-release with a chunk store, as a release engineer uses it: two releases of a small game
// packed into one store, and the ways to pack and count them.

#include "LauncherBundles.h"
#include "LauncherStorage.h"
#include "LauncherTestScope.h"
#include "RealLauncher.h"
#include "ReleaseTool.h"
#include "StandinGames.h"
#include "TestArchives.h"
#include "TestFiles.h"
#include "TestRequirements.h"
#include "TestServer.h"

#include "formats/ChunkIndex.h"
#include "formats/ChunkPack.h"
#include "formats/ChunkStore.h"
#include "formats/CompressedChunkIndex.h"
#include "formats/ReleaseManifest.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTest>

#include <optional>

#include <sys/stat.h>

using ReleaseTool::Run;

namespace ReleaseChunksData {

inline const QString kBase = QStringLiteral("https://cdn.example.invalid/builds");
inline const QString kStoreUrl = QStringLiteral("https://cdn.example.invalid/chunks");

// Every chunk file in a store, relative to it, with its bytes.
inline QMap<QString, QByteArray> storeContent(const QString& store) {
    QMap<QString, QByteArray> files;
    QDirIterator walk(store, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (walk.hasNext()) {
        const QString path = walk.next();
        files.insert(QDir(store).relativeFilePath(path), TestFiles::readFile(path));
    }
    return files;
}

// The numbers of pack's "chunks: N (A new, R already in the store)" line.
inline QList<qint64> chunkCounts(const Run& run) {
    const QRegularExpressionMatch match =
        QRegularExpression(QStringLiteral("^(\\d+) \\((\\d+) new, (\\d+) already in the store\\)$"))
            .match(run.line(QStringLiteral("chunks")));
    if (!match.hasMatch())
        return {};
    return {match.captured(1).toLongLong(), match.captured(2).toLongLong(), match.captured(3).toLongLong()};
}

inline qint64 newChunkBytes(const Run& run) {
    return run.line(QStringLiteral("new chunk bytes")).section(QLatin1Char(' '), 0, 0).toLongLong();
}

} // namespace ReleaseChunksData


using namespace ReleaseChunksData;

class ReleaseChunksScene : public QObject {
protected:

    // The test function's folder and what its launchers leave behind.
    std::optional<LauncherTestScope> scope_;

    QString path(const QString& relative) const { return scope_->path(relative); }
    QString store() const { return path(QStringLiteral("store")); }

    // Game 0.3.0: the stand-in as "zentho", eight files of 1 MiB that do not compress, text that
    // does, a symlink and an empty folder: about 12 MiB.
    QString makeRelease030() {
        const QString source = path(QStringLiteral("game-0.3.0"));
        TestFiles::makeFolder(source + QStringLiteral("/data/empty"));
        QFile::copy(ReleaseTool::standinGame020(), source + QStringLiteral("/zentho"));
        for (int i = 0; i < 8; ++i)
            TestFiles::writeFile(source + QStringLiteral("/data/pack%1.bin").arg(i), TestFiles::randomBytes(1 << 20, quint32(i)));
        QByteArray text;
        for (int line = 0; text.size() < (3 << 20); ++line)
            text += "level " + QByteArray::number(line) + ": spawn=" + QByteArray::number(line * 7 % 113) + "\n";
        TestFiles::writeFile(source + QStringLiteral("/data/levels.txt"), text);
        QFile::link(QStringLiteral("levels.txt"), source + QStringLiteral("/data/current"));
        return source;
    }

    // Game 0.3.1: 0.3.0 with 16 KiB rewritten in the middle of two files and a new file of 300 KiB.
    QString makeRelease031(const QString& from) {
        const QString source = path(QStringLiteral("game-0.3.1"));
        ReleaseTool::copyTree(from, source);
        for (const QString& name : {QStringLiteral("pack2.bin"), QStringLiteral("pack5.bin")}) {
            QFile file(source + QStringLiteral("/data/") + name);
            if (!file.open(QIODevice::ReadWrite) || !file.seek(400000))
                return {};
            file.write(TestFiles::randomBytes(16384, 99));
        }
        TestFiles::writeFile(source + QStringLiteral("/data/patch.bin"), TestFiles::randomBytes(300000, 77));
        return source;
    }

    Run packWithChunks(const QString& source, const QString& version, const QString& out,
                       const QStringList& extra = {}) {
        return ReleaseTool::packGameWithChunks(source, version, kBase, out, store(), kStoreUrl, extra);
    }


    void setUpScene() {
        QVERIFY(RealLauncher::becomeSubreaper());
        QVERIFY2(ReleaseTool::missingFromTheBuild().isEmpty(), qPrintable(ReleaseTool::missingFromTheBuild()));
    }
};
