#include "RepairBench.h"

#include "LauncherStorage.h"
#include "Player.h"

#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>

#include <random>

namespace {

// The largest plain file below `folder`, relative to it.
QString largestFile(const QString& folder) {
    QString largest;
    qint64 size = -1;
    QDirIterator it(folder, QDir::Files | QDir::Hidden | QDir::NoSymLinks, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QFileInfo file(it.next());
        if (file.size() > size) {
            size = file.size();
            largest = QDir(folder).relativeFilePath(file.filePath());
        }
    }
    return largest;
}

// Overwrites the first `bytes` of `path` with other bytes, its length unchanged.
qint64 damage(const QString& path, qint64 bytes) {
    QFile file(path);
    if (!file.open(QIODevice::ReadWrite))
        return 0;
    bytes = std::min(bytes, file.size());
    std::mt19937 random(8);
    QByteArray noise(bytes, '\0');
    for (char& byte : noise)
        byte = char(random());
    return file.write(noise) == bytes ? bytes : 0;
}

} // namespace

RepairRun repairDamagedFile(const TestServer& server, const QString& data, const QString& manifestUrl,
                            const QString& version, qint64 damagedBytes) {
    RepairRun result;
    const Player player(server, data, manifestUrl);
    const LauncherStorage storage = player.storage();
    for (const QString& other : QDir(storage.root() + QStringLiteral("/versions")).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        if (other != version)
            QDir(storage.build(other)).removeRecursively();
    }
    const QString build = storage.build(version);
    result.file = largestFile(build);
    result.damaged = damage(build + QLatin1Char('/') + result.file, damagedBytes);
    const int from = logLines(server);
    QElapsedTimer clock;
    clock.start();
    const Player::Run run = player.run({QStringLiteral("--repair"), version});
    result.seconds = double(clock.nsecsElapsed()) / 1e9;
    result.traffic = trafficSince(server, from);
    result.exitCode = run.exitCode;
    result.output = run.output.trimmed();
    result.whole = player.verify(version) == 0;
    return result;
}
