#include "InstallSandbox.h"
#include "TestRequirements.h"

#include <QRandomGenerator>

// What an install refuses: a digest that does not match as written, any answer but a plain 200,
// a local file, and archives that are broken or aim outside the staging folder.
class TestInstallRefusals : public InstallSandbox {
    Q_OBJECT

private slots:
    void initTestCase() {
        ZENTHO_REQUIRE(nginx);
        startServer();
    }
    void init() { setUpSandbox(); }
    void cleanup() { tearDownSandbox(); }

    void digestSpelling_data() {
        QTest::addColumn<QString>("spelling");
        QTest::addColumn<QString>("outcome");
        QTest::newRow("lower case") << "%1" << "ok";
        QTest::newRow("upper case") << "UPPER" << "ok";
        QTest::newRow("trailing blank") << "%1 " << "hashMismatch";
        QTest::newRow("trailing line feed") << "%1\n" << "hashMismatch";
        QTest::newRow("leading blank") << " %1" << "hashMismatch";
        QTest::newRow("sha256: prefix") << "sha256:%1" << "hashMismatch";
        QTest::newRow("first 63 digits") << "PREFIX63" << "hashMismatch";
        QTest::newRow("another archive's digest") << "OTHER" << "hashMismatch";
        QTest::newRow("empty") << "" << "hashMismatch";
    }
    void digestSpelling() {
        QFETCH(QString, spelling);
        QFETCH(QString, outcome);
        const QString archive = buildArchive(QStringLiteral("digest"));
        const QString digest = TestArchives::sha256sum(archive);
        QString written = spelling.contains(QStringLiteral("%1")) ? spelling.arg(digest) : spelling;
        if (spelling == QStringLiteral("UPPER")) {
            written = digest.toUpper();
        } else if (spelling == QStringLiteral("PREFIX63")) {
            written = digest.left(63);
        } else if (spelling == QStringLiteral("OTHER")) {
            // Archives of the same tree made in the same second are byte-identical, so the other
            // digest comes from other content.
            TestFiles::writeFile(scratch(QStringLiteral("other.bin")), "another build");
            written = TestArchives::sha256sum(scratch(QStringLiteral("other.bin")));
            QVERIFY(written != digest);
        }
        ReleaseManifest manifest = manifestFor("0.5.0", serve(archive), archive);
        manifest.sha256 = written;
        QUrl folder;
        QCOMPARE(outcomeOf(install(manifest, &folder)), outcome);
        if (outcome == QStringLiteral("ok")) {
            QCOMPARE(statuses_, (QStringList{kDownloading, kInstalling}));
            verifyInstalled(QStringLiteral("0.5.0"), folder);
        } else {
            QCOMPARE(statuses_, QStringList{kDownloading}); // never "Installing verified update..."
            verifyNothingChanged();
        }
    }

    void httpStatus_data() {
        QTest::addColumn<QString>("route");
        QTest::addColumn<QString>("outcome");
        QTest::newRow("200") << "/status/200" << "ok";
        QTest::newRow("plain file") << "" << "ok";
        QTest::newRow("https redirect") << "/redirect/https" << "ok";
        QTest::newRow("204") << "/status/204" << "downloadFailed";
        QTest::newRow("206") << "/status/206" << "downloadFailed";
        QTest::newRow("304") << "/status/304" << "downloadFailed";
        QTest::newRow("404") << "/status/404" << "downloadFailed";
        QTest::newRow("500") << "/status/500" << "downloadFailed";
        QTest::newRow("redirect to plain http") << "/redirect/http" << "NetworkError";
    }
    void httpStatus() {
        QFETCH(QString, route);
        QFETCH(QString, outcome);
        const QString archive = buildArchive(QStringLiteral("status"));
        QUrl folder;
        QCOMPARE(outcomeOf(install(manifestFor("0.6.0", serve(archive, route), archive), &folder)),
                 outcome);
        if (outcome == QStringLiteral("ok")) {
            verifyInstalled(QStringLiteral("0.6.0"), folder);
        } else {
            QCOMPARE(statuses_, QStringList{kDownloading});
            verifyNothingChanged();
        }
    }

    void transportFailurePassesThrough() {
        const QString archive = buildArchive(QStringLiteral("refused"));
        const QUrl url(QStringLiteral("https://127.0.0.1:%1/build.tar.gz")
                           .arg(TestServer::unusedLocalPort()));
        QCOMPARE(outcomeOf(install(manifestFor("0.6.1", url, archive))), QStringLiteral("NetworkError"));
        QCOMPARE(statuses_, QStringList{kDownloading});
        verifyNothingChanged();
    }

    // A local file is never installed, even with the right digest; its twin over https is.
    void fileUrlIsRefused() {
        const QString archive = buildArchive(QStringLiteral("local"));
        QCOMPARE(outcomeOf(install(manifestFor("0.7.0", QUrl::fromLocalFile(archive), archive))),
                 QStringLiteral("downloadFailed"));
        QCOMPARE(statuses_, QStringList{kDownloading});
        QVERIFY(QFileInfo::exists(archive));
        verifyNothingChanged();
    }
    void sameArchiveOverHttpsIsInstalled() {
        const QString archive = buildArchive(QStringLiteral("local"));
        QUrl folder;
        QCOMPARE(outcomeOf(install(manifestFor("0.7.0", serve(archive), archive), &folder)),
                 QStringLiteral("ok"));
        verifyInstalled(QStringLiteral("0.7.0"), folder);
    }

    void hostileArchive_data() {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<QString>("outcome");
        QTest::newRow("absolute name") << "absolute" << "unsafeArchive";
        QTest::newRow("climbs out through a folder") << "game/../../escaped" << "unsafeArchive";
        QTest::newRow("climbs out of the versions folder") << "../../../outside/escaped"
                                                           << "unsafeArchive";
        QTest::newRow("lone ..") << ".." << "unsafeArchive";
        QTest::newRow("dots inside a name") << "a..b/c" << "ok";
        QTest::newRow("dots starting a name") << "..x" << "ok";
        QTest::newRow("CR after ..") << "..\r/x" << "ok";
        QTest::newRow("dot components") << "./dir/./file" << "ok";
        QTest::newRow("empty archive") << "empty" << "missingExecutable";
        QTest::newRow("no executable") << "no executable" << "missingExecutable";
        QTest::newRow("corrupt gzip") << "corrupt" << "archiveFailed";
        QTest::newRow("truncated") << "truncated" << "archiveFailed";
        QTest::newRow("plain tar, not gzip") << "plain tar" << "archiveFailed";
    }
    void hostileArchive() {
        QFETCH(QString, kind);
        QFETCH(QString, outcome);
        QString archive = scratch(QStringLiteral("hostile.tar.gz"));
        if (kind == QStringLiteral("absolute")) {
            archive = archiveWithName(outside() + QStringLiteral("/escaped"));
        } else if (kind == QStringLiteral("empty")) {
            TestArchives::tar({QStringLiteral("-czf"), archive, QStringLiteral("--files-from=/dev/null")});
        } else if (kind == QStringLiteral("no executable")) {
            TestFiles::writeFile(scratch(QStringLiteral("noexec/data/pak0")), "pak0");
            TestArchives::create(archive, scratch(QStringLiteral("noexec")), {QStringLiteral("data")});
        } else if (kind == QStringLiteral("corrupt")) {
            static const char kCorrupt[] = "\x1f\x8b\x08\x00 not deflate at all";
            TestFiles::writeFile(archive, QByteArray(kCorrupt, sizeof kCorrupt - 1));
        } else if (kind == QStringLiteral("truncated")) {
            // Incompressible content, so that half of the archive is really missing its end.
            QByteArray noise(512 * 1024, '\0');
            QRandomGenerator::global()->fillRange(reinterpret_cast<quint32*>(noise.data()),
                                                  noise.size() / 4);
            TestFiles::makeBuild(scratch(QStringLiteral("cut")));
            TestFiles::writeFile(scratch(QStringLiteral("cut/noise")), noise);
            const QString whole = scratch(QStringLiteral("whole.tar.gz"));
            TestArchives::create(whole, scratch(QStringLiteral("cut")),
                                 {QStringLiteral("zentho"), QStringLiteral("noise")});
            TestFiles::writeFile(archive, TestFiles::readFile(whole).left(256 * 1024));
        } else if (kind == QStringLiteral("plain tar")) {
            TestFiles::makeBuild(scratch(QStringLiteral("plain")));
            TestArchives::tar({QStringLiteral("-cf"), archive, QStringLiteral("-C"),
                               scratch(QStringLiteral("plain")), QStringLiteral("zentho")});
        } else {
            archive = archiveWithName(kind);
        }
        QUrl folder;
        QCOMPARE(outcomeOf(install(manifestFor("0.8.0", serve(archive), archive), &folder)), outcome);
        QCOMPARE(statuses_, (QStringList{kDownloading, kInstalling}));
        if (outcome == QStringLiteral("ok")) {
            verifyInstalled(QStringLiteral("0.8.0"), folder);
            QCOMPARE(TestFiles::readFile(home_->versionsRoot() + QStringLiteral("/0.8.0/") + kind),
                     QByteArray("payload\n"));
        } else {
            verifyNothingChanged();
        }
    }
};

QTEST_MAIN(TestInstallRefusals)
#include "TestInstallRefusals.moc"
