// zentho-release publish: releases laid out as the release server serves them, served by a real
// nginx to the real launcher; the order of the renames watched with inotify, so that no manifest
// ever names an archive that is not in place; archives of earlier releases kept.

#include "LauncherBundles.h"
#include "LauncherTestScope.h"
#include "RealLauncher.h"
#include "ReleaseTool.h"
#include "TestFiles.h"
#include "TestRequirements.h"
#include "TestServer.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTest>

#include <optional>

#include <algorithm>

#include <sys/inotify.h>
#include <unistd.h>

using ReleaseTool::Run;

namespace {

struct Event {
    quint32 mask;
    QString name;
};

// Every inotify event on one folder, from creation to the end of the test.
class FolderWatch {
public:
    explicit FolderWatch(const QString& folder) : fd_(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
        ::inotify_add_watch(fd_, QFile::encodeName(folder).constData(),
                            IN_CREATE | IN_CLOSE_WRITE | IN_MOVED_TO | IN_DELETE);
    }
    ~FolderWatch() { ::close(fd_); }
    QList<Event> events() {
        QList<Event> all;
        alignas(inotify_event) char buffer[64 * 1024];
        ssize_t got;
        while ((got = ::read(fd_, buffer, sizeof buffer)) > 0) {
            for (char* at = buffer; at < buffer + got;) {
                const auto* event = reinterpret_cast<const inotify_event*>(at);
                all.append({event->mask, event->len ? QFile::decodeName(event->name) : QString()});
                at += sizeof(inotify_event) + event->len;
            }
        }
        return all;
    }

private:
    int fd_;
};

// The position of the first event of `mask` on `name`; -1 when there is none.
qsizetype positionOf(const QList<Event>& events, quint32 mask, const QString& name) {
    for (qsizetype i = 0; i < events.size(); ++i) {
        if ((events[i].mask & mask) && events[i].name == name)
            return i;
    }
    return -1;
}

} // namespace

class TestReleasePublish : public QObject {
    Q_OBJECT

    // The test function's folder and what its launchers leave behind.
    std::optional<LauncherTestScope> scope_;

    QString path(const QString& relative) const { return scope_->path(relative); }

    // A game release of the 0.2.0 stand-in packed as `version` into dist-<version>.
    QString packGame(const QString& version, const QString& base, const QStringList& extra = {}) {
        const QString game = path(QStringLiteral("game-") + version);
        TestFiles::makeFolder(game);
        QFile::copy(ReleaseTool::standinGame020(), game + QStringLiteral("/zentho"));
        TestFiles::writeFile(game + QStringLiteral("/notes.txt"), version.toUtf8() + '\n');
        const Run packed = ReleaseTool::packGame(game, version, base, path(QStringLiteral("dist-") + version), extra);
        if (!packed.ok())
            qWarning("pack: %s", packed.errors.constData());
        return packed.line(QStringLiteral("manifest"));
    }
    // The 0.2.0 launcher sealed with the test key and packed, signed, into dist-launcher.
    QString packLauncher020(const QString& base) {
        TestFiles::makeFolder(path(QStringLiteral("src")));
        const QString bundle = ReleaseTool::sealedCopy(ReleaseTool::launcherBundle020(), path(QStringLiteral("src/ZenthoLauncher.app")));
        const Run packed = ReleaseTool::packLauncher(bundle, QStringLiteral("0.2.0"), base, path(QStringLiteral("dist-launcher")),
                                                     {QStringLiteral("--sign-key"), ReleaseTool::testManifestKey()});
        if (!packed.ok())
            qWarning("pack: %s", packed.errors.constData());
        return packed.line(QStringLiteral("manifest"));
    }
    // publish with the test seal key, so launcher bundles sealed with it pass.
    Run publish(const QString& to, const QStringList& manifests, const QStringList& extra = {}) {
        return ReleaseTool::run(QStringList{QStringLiteral("publish"), QStringLiteral("--to"), to, QStringLiteral("--key"),
                                            ReleaseTool::testSealKey()} +
                                extra + manifests);
    }
    static QStringList manifestKey() {
        return {QStringLiteral("--manifest-key"), ReleaseTool::testManifestKey() + QStringLiteral(".pub")};
    }
    static QStringList filesUnder(const QString& folder) {
        QStringList files;
        for (const QString& name : QDir(folder).entryList(QDir::Files | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Name))
            files << name;
        return files;
    }

private slots:
    void initTestCase() { QVERIFY(RealLauncher::becomeSubreaper()); }
    void init() { scope_.emplace(); }
    void cleanup() { scope_.reset(); }

    // Published straight into nginx's document root, the release is what the launcher installs.
    void publishedReleasesAreServedAsTheLauncherExpects() {
        ZENTHO_REQUIRE(root);
        ZENTHO_REQUIRE(nginx);
        TestServer server;
        const QString base = server.url(QStringLiteral("/release")).toString();
        const QString game = packGame(QStringLiteral("0.2.0"), base);
        const Run published = ReleaseTool::run({QStringLiteral("publish"), QStringLiteral("--to"), server.documentRoot(), game});
        QVERIFY2(published.ok(), published.errors.constData());
        const QString release = server.documentRoot() + QStringLiteral("/release");
        QCOMPARE(QString::fromUtf8(published.output),
                 QStringLiteral("archive: %1/zentho-0.2.0-macos-arm64.tar.gz\nmanifest: %1/macos-arm64-manifest.json\n").arg(release));
        QCOMPARE(filesUnder(release), (QStringList{QStringLiteral("macos-arm64-manifest.json"),
                                                    QStringLiteral("zentho-0.2.0-macos-arm64.tar.gz")}));
        QCOMPARE(TestFiles::readFile(release + QStringLiteral("/macos-arm64-manifest.json")), TestFiles::readFile(game));
        QCOMPARE(TestFiles::modeOf(release + QStringLiteral("/zentho-0.2.0-macos-arm64.tar.gz")), 0644);

        const QString record = path(QStringLiteral("record"));
        RealLauncher launcher(LauncherBundles::builtBundle(), path(QStringLiteral("data")));
        launcher.useManifests(server.url(QStringLiteral("/release/macos-arm64-manifest.json")).toString(),
                              QStringLiteral("file:///dev/null/no-launcher-manifest.json"));
        launcher.recordGameStartIn(record);
        launcher.start(server, QStringLiteral("zentho://invite/published"));
        QCOMPARE(launcher.waitForExit(), std::optional<int>(0));
        const QByteArray recorded = RealLauncher::waitForGameRecord(record);
        QVERIFY2(recorded.startsWith("version=0.2.0\n"), (recorded + launcher.errors()).constData());
        RealLauncher::terminateAndCollect(RealLauncher::recordedPid(recorded));
    }

    void archivesGoFirstAndEachManifestLastByOneRename() {
        const QString base = QStringLiteral("https://release.example.invalid/release");
        const QString www = path(QStringLiteral("www"));
        TestFiles::makeFolder(www + QStringLiteral("/release"));
        const QStringList manifests{packGame(QStringLiteral("0.2.0"), base, {QStringLiteral("--sign-key"), ReleaseTool::testManifestKey()}),
                                    packLauncher020(base)};
        FolderWatch watch(www + QStringLiteral("/release"));
        const Run published = publish(www, manifests, manifestKey());
        QVERIFY2(published.ok(), published.errors.constData());
        const QList<Event> events = watch.events();

        const QStringList archives{QStringLiteral("zentho-0.2.0-macos-arm64.tar.gz"),
                                   QStringLiteral("zentho-0.2.0-macos-launcher-arm64.tar.gz")};
        const QStringList manifestNames{QStringLiteral("macos-arm64-manifest.json"),
                                        QStringLiteral("macos-launcher-arm64-manifest.json")};
        qsizetype lastArchive = -1;
        for (const QString& name : archives) {
            const qsizetype moved = positionOf(events, IN_MOVED_TO, name);
            QVERIFY2(moved >= 0, qPrintable(name));
            lastArchive = qMax(lastArchive, moved);
        }
        for (const QString& name : manifestNames) {
            const qsizetype signature = positionOf(events, IN_MOVED_TO, name + QStringLiteral(".sig"));
            const qsizetype manifest = positionOf(events, IN_MOVED_TO, name);
            QVERIFY2(lastArchive < signature && signature < manifest, qPrintable(name));
        }
        // No final name is ever created or written in place: each appears whole, by a rename,
        // after the hidden file behind it was written and closed.
        for (const Event& event : events) {
            if (!event.name.startsWith(QLatin1Char('.')))
                QVERIFY2(event.mask & IN_MOVED_TO, qPrintable(event.name));
        }
        QCOMPARE(std::count_if(events.begin(), events.end(),
                               [](const Event& e) { return (e.mask & IN_CLOSE_WRITE) && e.name.startsWith(QLatin1Char('.')); }),
                 6);
        QCOMPARE(filesUnder(www + QStringLiteral("/release")).size(), 6); // no hidden leftovers
    }

    void earlierArchivesStayAndNewerOnesAreAddedBeforeTheManifest() {
        const QString base = QStringLiteral("https://release.example.invalid/release");
        const QString www = path(QStringLiteral("www"));
        const QString release = www + QStringLiteral("/release");
        QVERIFY(publish(www, {packGame(QStringLiteral("0.2.0"), base)}).ok());
        const QString newer = packGame(QStringLiteral("0.3.0"), base);
        FolderWatch watch(release);
        QVERIFY(publish(www, {newer}).ok());
        const QList<Event> events = watch.events();
        QVERIFY(positionOf(events, IN_MOVED_TO, QStringLiteral("zentho-0.3.0-macos-arm64.tar.gz")) <
                positionOf(events, IN_MOVED_TO, QStringLiteral("macos-arm64-manifest.json")));
        QCOMPARE(filesUnder(release), (QStringList{QStringLiteral("macos-arm64-manifest.json"),
                                                    QStringLiteral("zentho-0.2.0-macos-arm64.tar.gz"),
                                                    QStringLiteral("zentho-0.3.0-macos-arm64.tar.gz")}));
        QCOMPARE(TestFiles::readFile(release + QStringLiteral("/macos-arm64-manifest.json")), TestFiles::readFile(newer));

        // The same release again leaves its archive as it is.
        const Run again = publish(www, {newer});
        QVERIFY2(again.ok(), again.errors.constData());
        QVERIFY(again.output.startsWith("archive: " + QFile::encodeName(release) + "/zentho-0.3.0-macos-arm64.tar.gz (kept)\n"));
    }

    // Every launcher installs whatever version the server names, so a lower one rolls every
    // player back: refused with nothing written, unless the publisher says it is meant.
    void aLowerVersionIsRefusedUnlessTheRollbackIsMeant() {
        const QString base = QStringLiteral("https://h.invalid/release");
        const QString www = path(QStringLiteral("www"));
        const QString release = www + QStringLiteral("/release");
        QVERIFY(publish(www, {packGame(QStringLiteral("0.10.0"), base)}).ok());
        const QByteArray published = TestFiles::readFile(release + QStringLiteral("/macos-arm64-manifest.json"));
        const QString lower = packGame(QStringLiteral("0.9.9"), base);

        const Run refused = publish(www, {lower});
        QCOMPARE(refused.exitCode, 1);
        QCOMPARE(refused.errors, QByteArray("zentho-release publish: macos-arm64 0.9.9 is lower than the published "
                                            "0.10.0; every launcher would go back to it (give --allow-downgrade to "
                                            "roll back on purpose)\n"));
        QCOMPARE(TestFiles::readFile(release + QStringLiteral("/macos-arm64-manifest.json")), published);
        QCOMPARE(filesUnder(release), (QStringList{QStringLiteral("macos-arm64-manifest.json"),
                                                    QStringLiteral("zentho-0.10.0-macos-arm64.tar.gz")}));

        const Run meant = publish(www, {lower}, {QStringLiteral("--allow-downgrade")});
        QVERIFY2(meant.ok(), meant.errors.constData());
        QCOMPARE(meant.errors, QByteArray("zentho-release publish: warning: macos-arm64 0.9.9 is lower than the "
                                          "published 0.10.0; every launcher would go back to it\n"));
        QCOMPARE(TestFiles::readFile(release + QStringLiteral("/macos-arm64-manifest.json")), TestFiles::readFile(lower));
    }
    // The twin: the same version again, or a higher one, goes out without a word.
    void theSameOrAHigherVersionNeedsNoPermission() {
        const QString base = QStringLiteral("https://h.invalid/release");
        const QString www = path(QStringLiteral("www"));
        const QString first = packGame(QStringLiteral("0.9.9"), base);
        QVERIFY(publish(www, {first}).ok());
        for (const QString& manifest : {first, packGame(QStringLiteral("0.10.0"), base)}) {
            const Run published = publish(www, {manifest});
            QVERIFY2(published.ok(), published.errors.constData());
            QCOMPARE(published.errors, QByteArray());
            QCOMPARE(TestFiles::readFile(www + QStringLiteral("/release/macos-arm64-manifest.json")),
                     TestFiles::readFile(manifest));
        }
    }

    // A release's version names its content: the same version with other content is refused
    // even where its archive would land under another name.
    void theSameVersionWithOtherContentIsRefusedUnderAnyUrl() {
        const QString www = path(QStringLiteral("www"));
        const QString release = www + QStringLiteral("/release");
        QVERIFY(publish(www, {packGame(QStringLiteral("0.2.0"), QStringLiteral("https://h.invalid/release"))}).ok());
        const QByteArray published = TestFiles::readFile(release + QStringLiteral("/macos-arm64-manifest.json"));

        TestFiles::writeFile(path(QStringLiteral("game-0.2.0/notes.txt")), "other content\n");
        const Run other = ReleaseTool::packGame(path(QStringLiteral("game-0.2.0")), QStringLiteral("0.2.0"),
                                                QStringLiteral("https://h.invalid/release/again"),
                                                path(QStringLiteral("dist-other")));
        QVERIFY2(other.ok(), other.errors.constData());
        const Run refused = publish(www, {other.line(QStringLiteral("manifest"))});
        QCOMPARE(refused.exitCode, 1);
        QCOMPARE(refused.errors, QByteArray("zentho-release publish: macos-arm64 0.2.0 is already published with other "
                                            "content; a published release is never replaced (pack the release under "
                                            "a new version)\n"));
        QCOMPARE(TestFiles::readFile(release + QStringLiteral("/macos-arm64-manifest.json")), published);
        QVERIFY(!QFileInfo::exists(release + QStringLiteral("/again")));
    }
    // The twin: the same content under another url is the same release, and goes out.
    void theSameReleaseUnderAnotherUrlIsPublished() {
        const QString www = path(QStringLiteral("www"));
        QVERIFY(publish(www, {packGame(QStringLiteral("0.2.0"), QStringLiteral("https://h.invalid/release"))}).ok());
        const Run moved = ReleaseTool::packGame(path(QStringLiteral("game-0.2.0")), QStringLiteral("0.2.0"),
                                                QStringLiteral("https://h.invalid/release/again"),
                                                path(QStringLiteral("dist-moved")));
        QVERIFY2(moved.ok(), moved.errors.constData());
        const Run published = publish(www, {moved.line(QStringLiteral("manifest"))});
        QVERIFY2(published.ok(), published.errors.constData());
        QCOMPARE(TestFiles::readFile(www + QStringLiteral("/release/macos-arm64-manifest.json")),
                 TestFiles::readFile(moved.line(QStringLiteral("manifest"))));
    }

    void aDryRunWritesNothing() {
        const QString www = path(QStringLiteral("www"));
        const Run dry = publish(www, {packGame(QStringLiteral("0.2.0"), QStringLiteral("https://h.invalid/release"))},
                                {QStringLiteral("--dry-run")});
        QVERIFY2(dry.ok(), dry.errors.constData());
        QVERIFY(dry.output.endsWith("manifest: " + QFile::encodeName(www) + "/release/macos-arm64-manifest.json\n"
                                    "dry run: nothing was written\n"));
        QVERIFY(!QFileInfo::exists(www));
    }

    void publishingMistakesAreRefusedBeforeAnythingIsWritten() {
        const QString base = QStringLiteral("https://h.invalid/release");
        const QString www = path(QStringLiteral("www"));
        const QString release = www + QStringLiteral("/release");
        const QString signedGame = packGame(QStringLiteral("0.2.0"), base, {QStringLiteral("--sign-key"), ReleaseTool::testManifestKey()});
        QVERIFY(publish(www, {signedGame}, manifestKey()).ok());
        const QByteArray published = TestFiles::readFile(release + QStringLiteral("/macos-arm64-manifest.json"));

        // The same version packed again with other content.
        const QString changed = path(QStringLiteral("game-0.2.0/notes.txt"));
        TestFiles::writeFile(changed, "changed\n");
        QVERIFY(ReleaseTool::packGame(path(QStringLiteral("game-0.2.0")), QStringLiteral("0.2.0"), base,
                                      path(QStringLiteral("dist-0.2.0")), {QStringLiteral("--force")}).ok());
        Run refused = publish(www, {signedGame});
        QCOMPARE(refused.exitCode, 1);
        QCOMPARE(refused.errors, "zentho-release publish: " + QFile::encodeName(release) +
                                     "/zentho-0.2.0-macos-arm64.tar.gz is already published with other content; a "
                                     "published archive is never replaced (pack the release under a new version)\n");

        // Unsigned where a signed manifest is published.
        const QString unsignedGame = packGame(QStringLiteral("0.3.0"), base);
        refused = publish(www, {unsignedGame});
        QCOMPARE(refused.exitCode, 1);
        QCOMPARE(refused.errors, "zentho-release publish: " + QFile::encodeName(release) +
                                     "/macos-arm64-manifest.json is published signed and " + QFile::encodeName(unsignedGame) +
                                     " is not; launchers that require signed manifests would refuse it (pack with --sign-key)\n");

        // A release that fails a check.
        const QString broken = packGame(QStringLiteral("0.4.0"), base, {QStringLiteral("--sign-key"), ReleaseTool::testManifestKey()});
        ReleaseTool::flipOneByte(path(QStringLiteral("dist-0.4.0/zentho-0.4.0-macos-arm64.tar.gz")));
        refused = publish(www, {broken}, manifestKey());
        QCOMPARE(refused.exitCode, 1);
        QVERIFY2(refused.errors.startsWith("zentho-release publish: sha256: the archive's digest is "), refused.errors.constData());

        // Two manifests for one platform.
        refused = publish(www, {broken, unsignedGame});
        QCOMPARE(refused.exitCode, 2);
        QCOMPARE(refused.errors, QByteArray("zentho-release publish: two manifests for macos-arm64 (see --help)\n"));

        QCOMPARE(TestFiles::readFile(release + QStringLiteral("/macos-arm64-manifest.json")), published);
        QCOMPARE(filesUnder(release), (QStringList{QStringLiteral("macos-arm64-manifest.json"),
                                                    QStringLiteral("macos-arm64-manifest.json.sig"),
                                                    QStringLiteral("zentho-0.2.0-macos-arm64.tar.gz")}));
    }
};

QTEST_MAIN(TestReleasePublish)
#include "TestReleasePublish.moc"
