#include "TestFiles.h"

#include "formats/TreeChunker.h"
#include "storage/BuildIndexes.h"
#include "storage/QuickBuildCheck.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTest>

using Kind = BuildDamage::Kind;
using Damage = std::vector<BuildDamage>;
using Checked = std::optional<Damage>;

Q_DECLARE_METATYPE(BuildDamage::Kind)

// The look a saved build gets before it starts: against the index kept for it, what lstat can
// see is found (a file gone, cut short or grown, something of another kind in its place), and
// nothing is read: a file of its own length with other bytes passes, for --verify to find.
class TestQuickBuildCheck : public QObject {
    Q_OBJECT

    QTemporaryDir dir_;
    QString root_;
    QString build_;

    QString at(const QString& path) const { return build_ + QLatin1Char('/') + path; }
    Checked check() const { return quickBuildCheck(root_, build_); }

private slots:
    void init() {
        root_ = dir_.filePath(QStringLiteral("launcher"));
        QVERIFY(QDir(root_).removeRecursively());
        build_ = root_ + QStringLiteral("/versions/0.3.0");
        TestFiles::makeBuild(build_);
        TestFiles::writeFile(at(QStringLiteral("data/level.pak")), TestFiles::randomBytes(300 * 1024, 5));
        TestFiles::writeFile(at(QStringLiteral("data/notes.txt")), "spawn at the gate\n");
        QVERIFY(QFile::link(QStringLiteral("level.pak"), at(QStringLiteral("data/current"))));
        TestFiles::makeFolder(at(QStringLiteral("saves")));
        QVERIFY(BuildIndexes(root_).write(build_, TreeChunker::index(build_, kDefaultChunkSizes).encode()));
    }

    void wholeBuildLooksWhole() { QCOMPARE(check(), Checked(Damage())); }

    void whatLstatShowsIsFound_data() {
        QTest::addColumn<QString>("path");
        QTest::addColumn<Kind>("kind");
        QTest::newRow("deleted file") << "data/notes.txt" << Kind::missing;
        QTest::newRow("deleted executable") << "zentho" << Kind::missing;
        QTest::newRow("deleted link") << "data/current" << Kind::missing;
        QTest::newRow("deleted folder") << "saves" << Kind::missing;
        QTest::newRow("truncated file") << "data/level.pak" << Kind::size;
        QTest::newRow("grown file") << "data/notes.txt" << Kind::size;
        QTest::newRow("file turned folder") << "data/notes.txt" << Kind::kind;
        QTest::newRow("file turned link") << "data/level.pak" << Kind::kind;
    }
    void whatLstatShowsIsFound() {
        QFETCH(QString, path);
        QFETCH(Kind, kind);
        const QString file = at(path);
        const qint64 size = QFileInfo(file).size();
        switch (kind) {
        case Kind::missing:
            QVERIFY(QFile::remove(file) || QDir(file).removeRecursively());
            break;
        case Kind::size:
            QVERIFY(QFile::resize(file, size > 1000 ? 1000 : size + 1));
            break;
        case Kind::kind:
            QVERIFY(QFile::remove(file));
            if (path.endsWith(QStringLiteral(".pak")))
                QVERIFY(QFile::link(QStringLiteral("notes.txt"), file));
            else
                TestFiles::makeFolder(file);
            break;
        default:
            QFAIL("not a case of this test");
        }
        QCOMPARE(check(), Checked(Damage{{path, kind}}));
    }

    // The twins: damage that lstat cannot see is not looked for, since finding it means reading
    // every byte of the build before every start.
    void bytesChangedInPlaceAreNotRead_data() {
        QTest::addColumn<QString>("path");
        QTest::newRow("one byte of a large file") << "data/level.pak";
        QTest::newRow("one byte of the executable") << "zentho";
    }
    void bytesChangedInPlaceAreNotRead() {
        QFETCH(QString, path);
        QFile file(at(path));
        const qint64 size = file.size();
        QVERIFY(file.open(QIODevice::ReadWrite) && file.seek(size / 2));
        const QByteArray before = file.peek(1);
        QCOMPARE(file.write(QByteArray(1, char(before.at(0) ^ 0x5a))), qint64(1));
        file.close();
        QCOMPARE(QFileInfo(file).size(), size);
        QCOMPARE(check(), Checked(Damage()));
        // What the quick check passes is damage all the same.
        const ChunkIndex index = ChunkIndex::decode(*BuildIndexes(root_).read(build_));
        QCOMPARE(checkBuild(build_, index, BuildCheckDepth::full, QStringLiteral("zentho")),
                 (Damage{{path, Kind::content}}));
    }
    void retargetedLinkIsNotLookedAt() {
        QVERIFY(QFile::remove(at(QStringLiteral("data/current"))));
        QVERIFY(QFile::link(QStringLiteral("notes.txt"), at(QStringLiteral("data/current"))));
        QCOMPARE(check(), Checked(Damage()));
    }

    // Nothing to compare with is not damage: such a build starts as it always did.
    void buildWithoutKeptIndexIsNotJudged() {
        QVERIFY(QFile::remove(at(QStringLiteral("data/notes.txt"))));
        QCOMPARE(quickBuildCheck(root_, root_ + QStringLiteral("/versions/0.2.0")), Checked());
        QVERIFY(BuildIndexes(root_).write(root_ + QStringLiteral("/versions/0.2.0"), "{}"));
        QCOMPARE(check(), Checked(Damage{{QStringLiteral("data/notes.txt"), Kind::missing}}));
    }
    void unreadableIndexIsNotJudged() {
        QVERIFY(QFile::remove(at(QStringLiteral("data/notes.txt"))));
        QVERIFY(BuildIndexes(root_).write(build_, "{\"not\": \"an index\"}"));
        QCOMPARE(check(), Checked());
    }
};

QTEST_GUILESS_MAIN(TestQuickBuildCheck)
#include "TestQuickBuildCheck.moc"
