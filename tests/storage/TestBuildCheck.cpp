#include "TestFiles.h"

#include "formats/TreeChunker.h"
#include "storage/BuildCheck.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <functional>

using Kind = BuildDamage::Kind;
using Damage = std::vector<BuildDamage>;

Q_DECLARE_METATYPE(BuildDamage::Kind)

// A saved build compared with the index its release listed: a whole build shows nothing, and each
// way a file can go wrong on disk is found and named, the quick check finding what lstat shows.
class TestBuildCheck : public QObject {
    Q_OBJECT

    QTemporaryDir dir_;
    QString build_;
    ChunkIndex index_;

    QString at(const QString& path) const { return build_ + QLatin1Char('/') + path; }

private slots:
    void init() {
        build_ = dir_.filePath(QStringLiteral("build"));
        QVERIFY(QDir(build_).removeRecursively());
        TestFiles::makeBuild(build_);
        TestFiles::writeFile(at(QStringLiteral("data/level.pak")), QByteArray(300 * 1024, 'L'));
        TestFiles::writeFile(at(QStringLiteral("data/notes.txt")), "spawn at the gate\n");
        QVERIFY(QFile::link(QStringLiteral("level.pak"), at(QStringLiteral("data/current"))));
        TestFiles::makeFolder(at(QStringLiteral("saves")));
        index_ = TreeChunker::index(build_, kDefaultChunkSizes);
    }

    void wholeBuildShowsNothing() {
        QCOMPARE(checkBuild(build_, index_, BuildCheckDepth::full), Damage());
        QCOMPARE(checkBuild(build_, index_, BuildCheckDepth::quick), Damage());
    }

    void eachDamageIsNamed_data() {
        QTest::addColumn<QString>("path");
        QTest::addColumn<Kind>("kind");
        QTest::addColumn<bool>("quickSeesIt");
        QTest::newRow("deleted file") << "data/notes.txt" << Kind::missing << true;
        QTest::newRow("deleted folder") << "saves" << Kind::missing << true;
        QTest::newRow("file turned folder") << "data/notes.txt" << Kind::kind << true;
        QTest::newRow("truncated file") << "data/level.pak" << Kind::size << true;
        QTest::newRow("same length, other bytes") << "data/level.pak" << Kind::content << false;
        QTest::newRow("link retargeted") << "data/current" << Kind::target << false;
        QTest::newRow("unreadable file") << "data/notes.txt" << Kind::mode << false;
        QTest::newRow("stray file") << "data/stray.bin" << Kind::extra << false;
    }
    void eachDamageIsNamed() {
        QFETCH(QString, path);
        QFETCH(Kind, kind);
        QFETCH(bool, quickSeesIt);
        const QString file = at(path);
        switch (kind) {
        case Kind::missing:
            QVERIFY(QFile::remove(file) || QDir(file).removeRecursively());
            break;
        case Kind::kind:
            QVERIFY(QFile::remove(file));
            TestFiles::makeFolder(file);
            break;
        case Kind::size:
            QVERIFY(QFile::resize(file, 1000));
            break;
        case Kind::content: {
            QFile bytes(file);
            QVERIFY(bytes.open(QIODevice::ReadWrite));
            QVERIFY(bytes.seek(200 * 1024));
            QCOMPARE(bytes.write("X"), qint64(1));
            break;
        }
        case Kind::target:
            QVERIFY(QFile::remove(file));
            QVERIFY(QFile::link(QStringLiteral("notes.txt"), file));
            break;
        case Kind::mode:
            QVERIFY(QFile::setPermissions(file, QFile::WriteOwner));
            break;
        case Kind::extra:
            TestFiles::writeFile(file, "left behind");
            break;
        }
        QCOMPARE(checkBuild(build_, index_, BuildCheckDepth::full), (Damage{{path, kind}}));
        const Damage quick = quickSeesIt ? Damage{{path, kind}} : Damage();
        QCOMPARE(checkBuild(build_, index_, BuildCheckDepth::quick), quick);
    }

    // The launcher makes the executable runnable whatever its release said; that is not damage,
    // while the same change to another file is.
    void runnableExecutableIsNotDamage() {
        QVERIFY(QFile::setPermissions(at(QStringLiteral("data/notes.txt")),
                                      QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
        QCOMPARE(checkBuild(build_, index_, BuildCheckDepth::full, QStringLiteral("data/notes.txt")), Damage());
        QCOMPARE(checkBuild(build_, index_, BuildCheckDepth::full),
                 (Damage{{QStringLiteral("data/notes.txt"), Kind::mode}}));
    }
};

QTEST_GUILESS_MAIN(TestBuildCheck)
#include "TestBuildCheck.moc"
