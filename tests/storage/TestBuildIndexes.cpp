#include "TestFiles.h"

#include "storage/BuildIndexes.h"

#include <QDir>
#include <QTemporaryDir>
#include <QTest>

// The indexes kept beside saved builds: found for their build only, and forgotten with it.
class TestBuildIndexes : public QObject {
    Q_OBJECT

private slots:
    void indexIsReadBackForItsBuildOnly() {
        QTemporaryDir root;
        const QString build = root.filePath(QStringLiteral("versions/0.3.0"));
        const QString nested = root.filePath(QStringLiteral("versions/beta/0.3.0"));
        TestFiles::makeFolder(build);
        TestFiles::makeFolder(nested);
        const BuildIndexes indexes(root.path());
        QVERIFY(!indexes.read(build).has_value());
        QVERIFY(indexes.write(build, "{\"index\":1}\n"));
        QVERIFY(indexes.write(nested, "{\"index\":2}"));
        QCOMPARE(indexes.read(build), std::optional<QByteArray>("{\"index\":1}\n"));
        QCOMPARE(indexes.read(nested), std::optional<QByteArray>("{\"index\":2}"));
        QVERIFY(!indexes.read(root.filePath(QStringLiteral("versions/0.3.1"))).has_value());
        // Nothing is ever written into a build folder.
        QCOMPARE(QDir(build).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot), QStringList());
    }

    // The store and the pack a build's release came from are kept beside its index; a build
    // whose release had no pack (or kept before packs) has a store and no pack.
    void storeAndPackAreKeptForTheirBuild() {
        QTemporaryDir root;
        const QString packed = root.filePath(QStringLiteral("versions/0.3.0"));
        const QString unpacked = root.filePath(QStringLiteral("versions/0.2.0"));
        TestFiles::makeFolder(packed);
        TestFiles::makeFolder(unpacked);
        const BuildIndexes indexes(root.path());
        const QUrl store(QStringLiteral("https://cdn.example/chunks"));
        const QUrl pack(QStringLiteral("https://cdn.example/builds/zentho-0.3.0-macos-arm64.chunks.pack"));
        QVERIFY(indexes.writeStore(packed, store, pack));
        QVERIFY(indexes.writeStore(unpacked, store));
        QCOMPARE(indexes.readStore(packed), std::optional<QUrl>(store));
        QCOMPARE(indexes.readPack(packed), std::optional<QUrl>(pack));
        QCOMPARE(indexes.readStore(unpacked), std::optional<QUrl>(store));
        QCOMPARE(indexes.readPack(unpacked), std::optional<QUrl>());
        QCOMPARE(indexes.readPack(root.filePath(QStringLiteral("versions/0.3.1"))), std::optional<QUrl>());
    }

    void indexOfABuildThatIsGoneIsForgotten() {
        QTemporaryDir root;
        const QString gone = root.filePath(QStringLiteral("versions/0.2.0"));
        const QString kept = root.filePath(QStringLiteral("versions/0.3.0"));
        TestFiles::makeFolder(gone);
        TestFiles::makeFolder(kept);
        const BuildIndexes indexes(root.path());
        QVERIFY(indexes.write(gone, "old"));
        QVERIFY(indexes.write(kept, "kept"));
        QVERIFY(QDir(gone).removeRecursively());
        QVERIFY(indexes.write(root.filePath(QStringLiteral("versions/0.4.0")), "new"));
        QCOMPARE(QDir(root.filePath(QStringLiteral("indexes"))).count(), 4u); // ".", "..", 0.3.0, 0.4.0
        QVERIFY(indexes.read(kept).has_value());
        QVERIFY(!indexes.read(gone).has_value());
    }

    // A file under the name of one build that names another is not its index.
    void indexNamingAnotherBuildIsNotRead() {
        QTemporaryDir root;
        const BuildIndexes indexes(root.path());
        const QString build = root.filePath(QStringLiteral("versions/0.3.0"));
        QVERIFY(indexes.write(build, "index"));
        const QString file = QDir(root.filePath(QStringLiteral("indexes"))).entryInfoList(QDir::Files).first().filePath();
        TestFiles::writeFile(file, "/somewhere/else\nindex");
        QVERIFY(!indexes.read(build).has_value());
    }
};

QTEST_GUILESS_MAIN(TestBuildIndexes)
#include "TestBuildIndexes.moc"
