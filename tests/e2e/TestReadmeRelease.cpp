// The README's release examples ("Publishing releases"), run as a publisher copies them: every
// shell block in order, by /bin/sh -e, in a folder laid out like the source checkout the README
// speaks from. The keys are made, a second tree is configured and built as launcher 0.2.0 with
// them (a real build, whose folder is kept under this build between runs so that only what the
// new keys touch is built again), the bundle is sealed and packed, the game packed, verified and
// published to a folder and through rclone to a real WebDAV server standing in for the bucket,
// the next game version packed with chunks and published, and its rollout set, raised, halted
// and opened to all. The only block left out copies to another machine with rsync.
// Its twins run copies of the README with one of the mistakes it once had (a chunk release
// without --sign-key, a remote publish of the first release given a chunk store, a chunk release
// packed over the first release's --out without --force): the run must fail and name that
// command.

#include "LauncherBundles.h"
#include "ReadmeExamples.h"
#include "ReleaseTool.h"
#include "TestFiles.h"
#include "TestRequirements.h"
#include "WebDavRemote.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QProcessEnvironment>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

#include <optional>

using ReadmeExamples::Block;

namespace {

const QString kSection = QStringLiteral("## Publishing releases");
// The first build of the 0.2.0 tree compiles the whole launcher.
constexpr int kBlockTimeoutMs = 50 * 60 * 1000;

QString sourceDir() {
    return qEnvironmentVariable("ZENTHO_SOURCE_DIR");
}

QString versionIn(const QString& manifest) {
    return QJsonDocument::fromJson(TestFiles::readFile(manifest)).object().value(QStringLiteral("version")).toString();
}

// The blocks a publisher runs on this machine: the mirror to another host needs that host.
QList<Block> runnable(const QList<Block>& blocks) {
    QList<Block> kept;
    for (const Block& block : blocks) {
        if (!block.text.contains(QLatin1String(" host:")))
            kept.append(block);
    }
    return kept;
}

} // namespace

class TestReadmeRelease : public QObject {
    Q_OBJECT

    QString readme_;
    std::optional<QTemporaryDir> bucket_;
    std::optional<WebDavRemote> remote_;

    // The folder the README's commands run in: the source checkout as the README sees it (its
    // top-level entries linked, `build` being this build) and the 0.2.0 tree they build, which
    // stays; anything an earlier run published is removed first.
    static QString workFolder() { return LauncherBundles::buildDir() + QStringLiteral("/readme-release"); }

    void prepareWorkFolder() {
        QDir work(workFolder());
        QVERIFY(work.mkpath(QStringLiteral(".")));
        for (const QFileInfo& entry : work.entryInfoList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot)) {
            if (entry.fileName() == QLatin1String("build-0.2.0"))
                continue;
            const bool removed = entry.isDir() && !entry.isSymLink() ? QDir(entry.filePath()).removeRecursively()
                                                                      : QFile::remove(entry.filePath());
            QVERIFY2(removed, qPrintable(entry.filePath()));
        }
        for (const QFileInfo& entry : QDir(sourceDir()).entryInfoList(QDir::AllEntries | QDir::NoDotAndDotDot)) {
            if (entry.fileName().startsWith(QLatin1String("build")))
                continue;
            QVERIFY(QFile::link(entry.filePath(), work.filePath(entry.fileName())));
        }
        QVERIFY(QFile::link(LauncherBundles::buildDir(), work.filePath(QStringLiteral("build"))));
        // The README's game build.
        ReleaseTool::makeSmallGame(work.filePath(QStringLiteral("path/to/game-build")), QStringLiteral("0.4.2"));
        // An empty bucket, behind a server that has cached nothing of an earlier one.
        remote_.reset();
        bucket_.emplace();
        QVERIFY(bucket_->isValid());
        remote_.emplace(bucket_->path());
    }

    // The environment a publisher has after building: `zentho-release` is the 0.2.0 tree's, and
    // rclone's remote `r2` is the WebDAV server.
    QProcessEnvironment publisherEnvironment() const {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("PATH"), workFolder() + QStringLiteral("/build-0.2.0/tools:") +
                                                       environment.value(QStringLiteral("PATH")));
        environment.insert(QStringLiteral("RCLONE_CONFIG_R2_TYPE"), QStringLiteral("webdav"));
        environment.insert(QStringLiteral("RCLONE_CONFIG_R2_URL"), qEnvironmentVariable("RCLONE_CONFIG_ZENTHO_WEBDAV_URL"));
        return environment;
    }

    ReadmeExamples::Outcome runReadme(const QString& readme) {
        return ReadmeExamples::run(runnable(ReadmeExamples::shellBlocks(readme, kSection)), workFolder(),
                                   publisherEnvironment(), kBlockTimeoutMs);
    }

private slots:
    void initTestCase() {
        ZENTHO_REQUIRE(rclone);
        if (!ReleaseTool::missingFromTheBuild().isEmpty())
            QSKIP(qPrintable(ReleaseTool::missingFromTheBuild()));
        if (QStandardPaths::findExecutable(QStringLiteral("cmake")).isEmpty())
            QSKIP("cmake is not installed");
        readme_ = QString::fromUtf8(TestFiles::readFile(sourceDir() + QStringLiteral("/README.md")));
    }

    void cleanupTestCase() {
        remote_.reset();
        if (QFileInfo::exists(workFolder())) {
            for (const QFileInfo& entry : QDir(workFolder()).entryInfoList(QDir::AllEntries | QDir::NoDotAndDotDot)) {
                if (entry.fileName() != QLatin1String("build-0.2.0"))
                    entry.isDir() && !entry.isSymLink() ? QDir(entry.filePath()).removeRecursively()
                                                        : QFile::remove(entry.filePath());
            }
        }
    }

    // Every step of a release the README shows is there to run, and only the mirror is left out.
    void theSectionHoldsTheWholeRelease() {
        const QList<Block> blocks = ReadmeExamples::shellBlocks(readme_, kSection);
        QCOMPARE(blocks.size() - runnable(blocks).size(), 1);
        QString all;
        for (const Block& block : runnable(blocks))
            all += block.text;
        for (const char* step : {"zentho-release keygen release.key", "cmake -S . -B build-0.2.0",
                                 "cmake --build build-0.2.0", "zentho-release sign-bundle",
                                 "--platform macos-launcher-arm64", "zentho-release verify dist/",
                                 "zentho-release publish --to www", "publish --to-remote r2:",
                                 "--chunks store --chunks-url", "zentho-release verify --chunks store",
                                 "publish --to www --chunks store", "rollout --percent 10", "rollout --all"})
            QVERIFY2(all.contains(QLatin1String(step)), step);
    }

    void examplesRunAsWritten() {
        prepareWorkFolder();
        if (QTest::currentTestFailed())
            return;
        const ReadmeExamples::Outcome outcome = runReadme(readme_);
        QVERIFY2(outcome.ok, qPrintable(outcome.describe()));

        const QDir work(workFolder());
        // The second tree really is launcher 0.2.0 trusting the release key it was configured
        // with, not this build's.
        const QString bundle = work.filePath(QStringLiteral("dist-src/ZenthoLauncher.app/Contents"));
        QCOMPARE(QJsonDocument::fromJson(TestFiles::readFile(bundle + QStringLiteral("/Info.json")))
                     .object().value(QStringLiteral("version")).toString(), QStringLiteral("0.2.0"));
        QCOMPARE(TestFiles::readFile(bundle + QStringLiteral("/Resources/trusted-seal-keys.pem")).trimmed(),
                 TestFiles::readFile(work.filePath(QStringLiteral("release.key.pub"))).trimmed());
        QVERIFY(QFileInfo::exists(bundle + QStringLiteral("/_CodeSignature/Signature")));
        // The folder publish: the launcher, the chunk release after 0.4.2, whose archive stays.
        QCOMPARE(versionIn(work.filePath(QStringLiteral("www/release/macos-launcher-arm64-manifest.json"))),
                 QStringLiteral("0.2.0"));
        QCOMPARE(versionIn(work.filePath(QStringLiteral("www/release/macos-arm64-manifest.json"))),
                 QStringLiteral("0.4.3"));
        for (const char* file : {"www/release/macos-arm64-manifest.json.sig", "www/release/zentho-0.4.2-macos-arm64.tar.gz",
                                 "www/release/zentho-0.4.3-macos-arm64.tar.gz",
                                 "www/release/zentho-0.4.3-macos-arm64.chunks.json",
                                 "www/release/zentho-0.2.0-macos-launcher-arm64.tar.gz"})
            QVERIFY2(QFileInfo::exists(work.filePath(QLatin1String(file))), file);
        QVERIFY(!QDir(work.filePath(QStringLiteral("www/chunks"))).isEmpty());
        // The bucket holds what the remote publish uploaded, byte for byte.
        const QDir bucket(bucket_->path() + QStringLiteral("/zentho-releases"));
        for (const char* file : {"release/macos-arm64-manifest.json", "release/macos-arm64-manifest.json.sig",
                                 "release/zentho-0.4.2-macos-arm64.tar.gz"})
            QCOMPARE(TestFiles::readFile(bucket.filePath(QLatin1String(file))),
                     TestFiles::readFile(work.filePath(QStringLiteral("dist/") + QFileInfo(QLatin1String(file)).fileName())));
        // The rollout ends open to all, the manifest still signed and still 0.4.3, as the 0.2.0
        // tree's tool (which knows the manifest key) checks it.
        QProcess verify;
        verify.setWorkingDirectory(workFolder());
        verify.start(work.filePath(QStringLiteral("build-0.2.0/tools/zentho-release")),
                     {QStringLiteral("verify"), QStringLiteral("--chunks"), QStringLiteral("store"),
                      QStringLiteral("www/release/macos-arm64-manifest.json"),
                      QStringLiteral("www/release/zentho-0.4.3-macos-arm64.tar.gz")});
        QVERIFY(verify.waitForFinished(120000));
        const QString output = QString::fromUtf8(verify.readAllStandardOutput());
        QVERIFY2(verify.exitStatus() == QProcess::NormalExit && verify.exitCode() == 0,
                 verify.readAllStandardError().constData());
        QVERIFY2(output.startsWith(QLatin1String("ok: macos-arm64 0.4.3: ")), qPrintable(output));
        QVERIFY2(output.contains(QLatin1String("signature")), qPrintable(output));
        QVERIFY(!QJsonDocument::fromJson(TestFiles::readFile(work.filePath(QStringLiteral("www/release/macos-arm64-manifest.json"))))
                     .object().contains(QStringLiteral("rollout")));
    }

    void aBrokenExampleIsNamed_data() {
        QTest::addColumn<QString>("wrong");
        QTest::addColumn<QString>("written");
        QTest::addColumn<QString>("failingCommand");
        QTest::newRow("chunk release without --sign-key")
            << QStringLiteral("    --chunk-pack --sign-key manifest.key --expires-in 90 --out dist-0.4.3 path/to/game-build")
            << QStringLiteral("    --chunk-pack --out dist-0.4.3 path/to/game-build")
            << QStringLiteral("zentho-release verify --chunks store dist-0.4.3/macos-arm64-manifest.json");
        QTest::newRow("remote publish of a release without chunks given a store")
            << QStringLiteral("publish --to-remote r2:zentho-releases dist/macos-launcher-arm64-manifest.json")
            << QStringLiteral("publish --to-remote r2:zentho-releases --chunks store")
            << QStringLiteral("zentho-release publish --to-remote r2:zentho-releases --chunks store");
        QTest::newRow("chunk release packed over dist without --force")
            << QStringLiteral("--out dist-0.4.3 path/to/game-build")
            << QStringLiteral("--out dist path/to/game-build")
            << QStringLiteral("zentho-release pack --platform macos-arm64 --version 0.4.3");
    }

    void aBrokenExampleIsNamed() {
        QFETCH(QString, wrong);
        QFETCH(QString, written);
        QFETCH(QString, failingCommand);
        QString readme = readme_;
        QCOMPARE(readme.count(wrong), 1);
        readme.replace(wrong, written);
        prepareWorkFolder();
        if (QTest::currentTestFailed())
            return;
        const ReadmeExamples::Outcome outcome = runReadme(readme);
        QVERIFY2(!outcome.ok, "the broken README ran to its end");
        qInfo("%s", qPrintable(outcome.describe()));
        QVERIFY2(outcome.command.startsWith(failingCommand), qPrintable(outcome.describe()));
        QVERIFY2(outcome.exitCode == 1 || outcome.exitCode == 2, qPrintable(outcome.describe()));
        QVERIFY2(outcome.describe().contains(failingCommand), qPrintable(outcome.describe()));
    }
};

QTEST_GUILESS_MAIN(TestReadmeRelease)
#include "TestReadmeRelease.moc"
