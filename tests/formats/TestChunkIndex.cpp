#include "formats/ChunkIndex.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>

#include <optional>
#include <utility>

namespace {

const QString kA = QString(64, QLatin1Char('a'));
const QString kB = QString(64, QLatin1Char('b'));
const QString kC = QString(64, QLatin1Char('c'));

QJsonObject folder(const QString& path, int mode = 0755) {
    return {{"path", path}, {"kind", "folder"}, {"mode", mode}};
}
QJsonObject symlinkEntry(const QString& path, const QString& target) {
    return {{"path", path}, {"kind", "symlink"}, {"target", target}};
}
QJsonObject chunk(const QString& sha256, qint64 size) {
    return {{"sha256", sha256}, {"size", size}};
}
QJsonObject file(const QString& path, qint64 size, const QJsonArray& chunks, int mode = 0644) {
    return {{"path", path}, {"kind", "file"}, {"mode", mode}, {"size", size}, {"sha256", kC}, {"chunks", chunks}};
}

// A small build: a folder, a file of two chunks, an empty file, symlinks to a file and a folder.
QJsonArray goodEntries() {
    return {folder("data"),
            file("data/levels.bin", 300000, {chunk(kA, 200000), chunk(kB, 100000)}),
            file("data/empty", 0, {}),
            symlinkEntry("data/current", "levels.bin"),
            symlinkEntry("up", "data/../data"),
            file("zentho", 70000, {chunk(kB, 70000)}, 0755)};
}

QJsonObject index(const QJsonArray& entries) {
    return {{"format", 1}, {"chunker", "fastcdc-gear64"}, {"min", 65536}, {"average", 262144},
            {"max", 1048576}, {"entries", entries}};
}

QByteArray json(const QJsonObject& object) {
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

// The reason the reader gives, or a null string when it accepts the text.
QString refusalOf(const QByteArray& text) {
    try {
        ChunkIndex::decode(text);
    } catch (const ChunkIndexError& error) {
        return QString::fromUtf8(error.what());
    }
    return {};
}

QJsonArray withEntry(const QJsonObject& extra) {
    QJsonArray entries = goodEntries();
    entries.append(extra);
    return entries;
}

} // namespace

class TestChunkIndex : public QObject {
    Q_OBJECT

private slots:
    void aGoodIndexIsReadWhole() {
        const ChunkIndex read = ChunkIndex::decode(json(index(goodEntries())));
        QCOMPARE(read.chunking, (ChunkSizes{65536, 262144, 1048576}));
        QCOMPARE(read.entries.size(), std::size_t(6));
        const ChunkIndexEntry& levels = read.entries[1];
        QCOMPARE(levels.path, QStringLiteral("data/levels.bin"));
        QCOMPARE(levels.kind, ChunkIndexEntry::Kind::file);
        QCOMPARE(levels.mode, 0644);
        QCOMPARE(levels.size, qint64(300000));
        QCOMPARE(levels.sha256, kC);
        QCOMPARE(levels.chunks, (std::vector<ChunkRef>{{kA, 200000}, {kB, 100000}}));
        QCOMPARE(read.entries[0].kind, ChunkIndexEntry::Kind::folder);
        QCOMPARE(read.entries[0].mode, 0755);
        QCOMPARE(read.entries[3].kind, ChunkIndexEntry::Kind::symlink);
        QCOMPARE(read.entries[3].target, QStringLiteral("levels.bin"));
        QVERIFY(read.entries[2].chunks.empty());
    }

    void whatIsWrittenReadsBackTheSame() {
        const ChunkIndex read = ChunkIndex::decode(json(index(goodEntries())));
        const QByteArray written = read.encode();
        QCOMPARE(ChunkIndex::decode(written), read);
        // One entry a line, so two releases' indexes compare with diff.
        QCOMPARE(written.count('\n'), qsizetype(read.entries.size() + 2));
        ChunkIndex other = read;
        other.entries[1].chunks[1].size = 99999;
        QVERIFY(!(ChunkIndex::decode(other.encode().replace("99999", "100000")) == other));
    }

    // Files and folders carry the release's modification times when the index has them; an index
    // without them reads as before.
    void modificationTimesAreReadAndWrittenWhenThere() {
        QJsonObject timedFolder = folder("data");
        timedFolder.insert(QStringLiteral("mtime"), 1764000000);
        QJsonObject timedFile = file("data/a", 5, {chunk(kA, 5)});
        timedFile.insert(QStringLiteral("mtime"), 1764000001);
        const ChunkIndex read = ChunkIndex::decode(json(index(QJsonArray{timedFolder, timedFile, file("b", 5, {chunk(kA, 5)})})));
        QCOMPARE(read.entries[0].mtime, std::optional<qint64>(1764000000));
        QCOMPARE(read.entries[1].mtime, std::optional<qint64>(1764000001));
        QCOMPARE(read.entries[2].mtime, std::nullopt);
        QCOMPARE(ChunkIndex::decode(read.encode()), read);
        QVERIFY(read.encode().contains("\"mtime\":1764000001"));
    }

    void hostileOrBrokenIndexesAreRefused_data() {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<QString>("reason");
        const auto row = [](const char* name, const QJsonArray& entries, const char* reason) {
            QTest::newRow(name) << json(index(entries)) << QString::fromLatin1(reason);
        };
        row("dot-dot path", withEntry(file("data/../../evil", 0, {})), "\"data/../../evil\" leads out of the build");
        row("lone dot-dot", withEntry(folder("..")), "\"..\" leads out of the build");
        row("absolute path", withEntry(file("/etc/passwd", 0, {})), "\"/etc/passwd\" is absolute");
        row("empty component", withEntry(file("data//x", 0, {})), "empty, \".\" or too long component");
        row("dot component", withEntry(file("./x", 0, {})), "empty, \".\" or too long component");
        row("trailing slash", withEntry(folder("data/sub/")), "empty, \".\" or too long component");
        row("control character", withEntry(file("data/a\nb", 0, {})), "holds a control character");
        row("empty path", withEntry(file("", 0, {})), "a path is empty or too long");
        row("long name", withEntry(file("data/" + QString(256, 'n'), 0, {})), "too long component");
        row("duplicate path", withEntry(file("zentho", 0, {})), "\"zentho\" is listed twice");
        row("duplicate folder", withEntry(folder("data")), "\"data\" is listed twice");
        row("under a symlink", withEntry(file("data/current/x", 0, {})), "does not lie in a folder listed before it");
        row("under a file", withEntry(file("zentho/x", 0, {})), "does not lie in a folder listed before it");
        row("parent missing", withEntry(file("nowhere/x", 0, {})), "does not lie in a folder listed before it");
        row("symlink out", withEntry(symlinkEntry("out", "../outside")), "\"out\" points outside the build");
        row("symlink deep out", withEntry(symlinkEntry("data/out", "../../x")), "\"data/out\" points outside the build");
        row("absolute symlink", withEntry(symlinkEntry("abs", "/etc/passwd")), "\"abs\" points outside the build");
        // Each link stays inside on its own; followed through the other, the second leaves.
        row("symlink out through another", withEntry(symlinkEntry("data/top", "..")) + symlinkEntry("esc", "data/top/.."),
            "\"esc\" points outside the build");
        row("symlink loop", withEntry(symlinkEntry("loop1", "loop2")) + symlinkEntry("loop2", "loop1"), "points in a loop");
        row("empty target", withEntry(symlinkEntry("nothing", "")), "empty, too long or unprintable target");
        row("setuid", withEntry(file("su", 0, {}, 04755)), "\"su\" has a setuid, setgid or sticky mode");
        row("setgid folder", withEntry(folder("sg", 02755)), "\"sg\" has a setuid, setgid or sticky mode");
        row("sticky", withEntry(folder("st", 01777)), "has a setuid, setgid or sticky mode");
        row("mode too large", withEntry(file("m", 0, {}, 0100644)), "\"mode\" is not a whole number from 0 to 4095");
        row("fifo", withEntry(QJsonObject{{"path", "p"}, {"kind", "fifo"}, {"mode", 0644}}),
            "\"p\" is neither a file, a folder nor a symlink");
        row("device", withEntry(QJsonObject{{"path", "d"}, {"kind", "device"}, {"mode", 0644}}),
            "neither a file, a folder nor a symlink");
        row("chunks short of size", withEntry(file("s", 10, {chunk(kA, 9)})), "\"s\"'s chunks do not add up to its size");
        row("chunks past size", withEntry(file("s", 10, {chunk(kA, 9), chunk(kB, 9)})), "do not add up to its size");
        row("no chunks for bytes", withEntry(file("s", 10, {})), "do not add up to its size");
        row("empty chunk", withEntry(file("s", 0, {chunk(kA, 0)})), "\"s\" has an empty chunk");
        row("chunk over max", withEntry(file("s", 1048577, {chunk(kA, 1048577)})), "\"size\" is not a whole number from 0 to 1048576");
        row("negative size", withEntry(file("s", -1, {})), "not a whole number");
        row("fractional size", withEntry(QJsonObject{{"path", "s"}, {"kind", "file"}, {"mode", 420}, {"size", 1.5},
                                                     {"sha256", kC}, {"chunks", QJsonArray{chunk(kA, 1)}}}),
            "not a whole number");
        row("upper-case digest", withEntry(file("s", 1, {chunk(kA.toUpper(), 1)})), "is not 64 lower-case hex digits");
        row("short digest", withEntry(file("s", 1, {chunk(QStringLiteral("abc"), 1)})), "is not 64 lower-case hex digits");
        row("file without digest", withEntry(QJsonObject{{"path", "s"}, {"kind", "file"}, {"mode", 420}, {"size", 0},
                                                         {"chunks", QJsonArray{}}}),
            "\"s\" has no \"sha256\"");
        row("entry not an object", goodEntries() + QJsonValue(3), "an entry is not an object");

        QJsonObject wrongFormat = index(goodEntries());
        wrongFormat.insert("format", 2);
        QTest::newRow("unknown format") << json(wrongFormat) << QStringLiteral("its format is not 1");
        QJsonObject wrongChunker = index(goodEntries());
        wrongChunker.insert("chunker", "rabin");
        QTest::newRow("unknown chunker") << json(wrongChunker) << QStringLiteral("its chunker is not fastcdc-gear64");
        QJsonObject hugeChunks = index(goodEntries());
        hugeChunks.insert("max", 1 << 30);
        QTest::newRow("huge chunks") << json(hugeChunks) << QStringLiteral("\"max\" is not a whole number from 0 to 16777216");
        QJsonObject oddAverage = index(goodEntries());
        oddAverage.insert("average", 200000);
        QTest::newRow("odd average") << json(oddAverage) << QStringLiteral("power-of-two average");
        QJsonObject noEntries = index(goodEntries());
        noEntries.remove("entries");
        QTest::newRow("no entries") << json(noEntries) << QStringLiteral("the index has no \"entries\"");
        QTest::newRow("not JSON") << QByteArray("{\"format\":1,") << QStringLiteral("it is not valid JSON");
        for (const auto& [name, time] : {std::pair{"negative time", QJsonValue(-1)}, std::pair{"fractional time", QJsonValue(1.5)},
                                         std::pair{"time as text", QJsonValue(QStringLiteral("yesterday"))},
                                         std::pair{"time past 9999", QJsonValue(1e12)}}) {
            QJsonObject timed = file("timed", 0, {});
            timed.insert(QStringLiteral("mtime"), time);
            row(name, withEntry(timed), "\"timed\"'s \"mtime\" is not a whole number");
        }
        QTest::newRow("an array") << QByteArray("[]") << QStringLiteral("it is not a JSON object");
        QTest::newRow("raw control character") << QByteArray("{\"format\":1,\"chunker\":\"a\tb\"}")
                                               << QStringLiteral("control character in a string");
        QByteArray oversize = json(index(goodEntries()));
        oversize.append(QByteArray(ChunkIndex::kMaxBytes, ' '));
        QTest::newRow("oversize") << oversize << QStringLiteral("it is larger than 32 MiB");
    }
    void hostileOrBrokenIndexesAreRefused() {
        QFETCH(QByteArray, text);
        QFETCH(QString, reason);
        const QString refusal = refusalOf(text);
        QVERIFY2(refusal.startsWith(QStringLiteral("The chunk index is not usable: ")), qPrintable(refusal));
        QVERIFY2(refusal.contains(reason), qPrintable(refusal));
    }

    // The twins of the refusals above: what is close to each but harmless is read.
    void harmlessNeighboursOfTheRefusalsAreRead() {
        const QJsonArray entries = withEntry(file("data/..x", 0, {})) + file("a..b", 0, {}) +
                                   symlinkEntry("data/sibling", "../zentho") + symlinkEntry("data/self", ".") +
                                   symlinkEntry("data/chain", "current") + symlinkEntry("dangling", "data/not-there/../x") +
                                   folder("open", 0777) + file("private", 0, {}, 0) +
                                   file("maxed", 1048576, {chunk(kA, 1048576)});
        QCOMPARE(refusalOf(json(index(entries))), QString());
        // Up to the size limit, an index is read.
        QByteArray padded = json(index(goodEntries()));
        padded.append(QByteArray(ChunkIndex::kMaxBytes - padded.size(), ' '));
        QCOMPARE(refusalOf(padded), QString());
    }
};

QTEST_GUILESS_MAIN(TestChunkIndex)
#include "TestChunkIndex.moc"
