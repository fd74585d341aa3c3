// The real launcher against game manifests whose version would name another folder than one
// build's: a path back into the storage (its chunk cache), one that leaves the storage, and the
// bare parent. Each is refused before anything is written, like a manifest that does not decode:
// the installed build starts, its record stays, the chunk cache and everything outside the
// storage are as they were, and the archive is never fetched.

#include "InstallFixture.h"
#include "StandinGames.h"
#include "TestArchives.h"
#include "TestFiles.h"
#include "TestRequirements.h"
#include "TreeSnapshot.h"

#include <QDir>
#include <QFileInfo>
#include <QTest>

namespace {

const QString kInstalled = QStringLiteral("0.5.0");
// Where a version of "../../../../escaped" would put a build: the test's own folder, beside the
// data home.
const QString kEscaped = QStringLiteral("escaped");

} // namespace

class TestHostileVersions : public QObject, InstallFixture {
    Q_OBJECT

    // A chunk the cache already holds: what a later clear would delete along with a build
    // installed among them.
    void fillChunkCache() {
        TestFiles::writeFile(storage().chunks() + QStringLiteral("/ab/ab") + QString(62, QLatin1Char('0')) +
                                 QStringLiteral(".zst"),
                             "a chunk kept from an earlier release");
    }
    // Publishes a game (a recorder) as `version`; its archive's name on the server.
    QString publishGameAs(const QString& version, QString& manifest) {
        const QString folder = path(QStringLiteral("release"));
        StandinGames::recorder(folder, record(), 1.5);
        const Published published =
            publish(version, TestArchives::bytesOf(folder, {QStringLiteral("zentho")}));
        manifest = published.manifest;
        return published.archivePath;
    }

private slots:
    void initTestCase() {
        ZENTHO_REQUIRE(root);
        ZENTHO_REQUIRE(nginx);
        setUpSuite();
    }
    void init() { setUp(); }
    void cleanup() { tearDown(); }

    void versionNamingAnotherFolderIsRefused_data() {
        QTest::addColumn<QString>("version");
        QTest::addColumn<bool>("cacheHeld");
        // With no chunk kept, the build would land where the cache goes and be cleared with it.
        QTest::newRow("into the chunk cache") << QStringLiteral("../chunks") << false;
        QTest::newRow("into a chunk cache that holds chunks") << QStringLiteral("../chunks") << true;
        QTest::newRow("out of the storage") << QStringLiteral("../../../../") + kEscaped << true;
        QTest::newRow("the storage itself") << QStringLiteral("..") << true;
    }
    void versionNamingAnotherFolderIsRefused() {
        QFETCH(QString, version);
        QFETCH(bool, cacheHeld);
        installCurrent(kInstalled);
        if (cacheHeld)
            fillChunkCache();
        const QStringList chunksBefore = TreeSnapshot::of(storage().chunks());
        const QStringList buildBefore = TreeSnapshot::of(build(kInstalled));
        const QByteArray stateBefore = TestFiles::readFile(storage().state());
        QString manifest;
        const QString archive = publishGameAs(version, manifest);

        // Twice: a refused release leaves nothing that changes the next start either.
        for (int start = 0; start < 2; ++start)
            QCOMPARE(press(manifest), build(kInstalled));
        QCOMPARE(TestFiles::readFile(storage().state()), stateBefore);
        QCOMPARE(TreeSnapshot::of(storage().chunks()), chunksBefore);
        QCOMPARE(TreeSnapshot::of(build(kInstalled)), buildBefore);
        QCOMPARE(QDir(storage().versions()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden),
                 QStringList{kInstalled});
        QVERIFY(!QFileInfo::exists(path(kEscaped)));
        server_->awaitLogged();
        QCOMPARE(server_->servedFor(archive).size(), 0);
    }

    // The twin: a version that merely spells the cache's name is one folder like any other. It
    // installs beside the installed build, outside the chunk cache that every install then
    // clears, and the next start finds it there without fetching it again.
    void versionSpellingAStorageFolderNameInstalls() {
        installCurrent(kInstalled);
        fillChunkCache();
        QString manifest;
        const QString archive = publishGameAs(QStringLiteral("chunks"), manifest);

        QCOMPARE(press(manifest), build(QStringLiteral("chunks")));
        QCOMPARE(press(manifest), build(QStringLiteral("chunks")));
        QVERIFY(TestFiles::readFile(storage().state()).contains("\"chunks\""));
        QVERIFY(QFileInfo(build(kInstalled) + QStringLiteral("/zentho")).isExecutable());
        server_->awaitLogged();
        QCOMPARE(server_->servedFor(archive).size(), 1);
    }
};

QTEST_GUILESS_MAIN(TestHostileVersions)
#include "TestHostileVersions.moc"
