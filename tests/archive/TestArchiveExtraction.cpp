#include "ArchiveCorpus.h"
#include "TaskOutcome.h"
#include "TestFiles.h"
#include "TreeSnapshot.h"

#include "archive/Archive.h"
#include "archive/ArchiveExtraction.h"
#include "errors/LauncherError.h"
#include "platform/FileManager.h"

#include <InflatedTarRun.h>

#include <QDir>
#include <QTemporaryDir>
#include <QTest>

namespace {

// How an extraction ended, comparable as text: tar's error exactly as reported, if any, and the
// tree it left, to the last mode bit, byte and link target.
QString outcomeText(const QString& folder, const std::function<void()>& extract) {
    QString ended = QStringLiteral("unpacked");
    try {
        extract();
    } catch (const LauncherError& error) {
        ended = QStringLiteral("failed: ") + error.errorDescription();
    }
    return ended + QLatin1Char('\n') + TreeSnapshot::of(folder).join(QLatin1Char('\n'));
}

} // namespace

// Unpacking through igzip ends exactly as `tar -xzf` does: the same tree and the same error, for
// normal, unusual, hostile and broken archives.
class TestArchiveExtraction : public QObject {
    Q_OBJECT

    QTemporaryDir corpus_;
    // Unpacked trees go to memory when the system has a tmpfs: 100,000 files then take a moment.
    std::unique_ptr<QTemporaryDir> work_;
    int serial_ = 0;

    QString freshFolder() {
        const QString folder = work_->filePath(QStringLiteral("out-%1").arg(++serial_));
        TestFiles::makeFolder(folder);
        return folder;
    }

    void compareWithLiteral(const QString& archive, bool fast) {
        const QString literal = freshFolder();
        const QString expected =
            outcomeText(literal, [&] { runTar(extractArguments(archive, literal)); });
        const QString folder = freshFolder();
        const QString actual = outcomeText(folder, [&] {
            awaitResult([](QString a, QString f) -> QCoro::Task<bool> {
                co_await extractArchive(FileManager::defaultManager(), a, f);
                co_return true;
            }(archive, folder));
        });
        QCOMPARE(actual, expected);
        QCOMPARE(expected.startsWith(QStringLiteral("unpacked")) || !fast, true);

        // The fast path really answers where it can, and stands aside where it cannot.
        const QString probe = freshFolder();
        const std::unique_ptr<InflatedTarRun> run = startInflatedTar(streamedExtractArguments(probe));
        run->finishFrom(QFile::encodeName(archive).toStdString());
        QCOMPARE(run->wait().clean, fast);
        for (const QString& done : {literal, folder, probe})
            FileManager::defaultManager().removeItem(done);
    }

private slots:
    void initTestCase() {
        QVERIFY(ArchiveCorpus::make(corpus_.path()));
        work_ = QDir(QStringLiteral("/dev/shm")).exists()
                    ? std::make_unique<QTemporaryDir>(QStringLiteral("/dev/shm/zentho-test-XXXXXX"))
                    : std::make_unique<QTemporaryDir>();
        QVERIFY(work_->isValid());
    }

    void sameAsTheLiteralRun_data() {
        QTest::addColumn<QString>("archive");
        QTest::addColumn<bool>("fast");
        for (const ArchiveCorpus::Case& c : ArchiveCorpus::cases())
            QTest::newRow(c.name) << ArchiveCorpus::pathOf(corpus_.path(), c.name) << c.extractsFast;
    }
    void sameAsTheLiteralRun() {
        QFETCH(QString, archive);
        QFETCH(bool, fast);
        compareWithLiteral(archive, fast);
    }

    // What a fast run that failed half-way left behind is gone before the literal run starts, so
    // the folder ends holding only what the literal run leaves.
    void folderIsEmptiedBeforeTheLiteralRun() {
        const QString archive = ArchiveCorpus::pathOf(corpus_.path(), "write-through-link");
        const QString folder = freshFolder();
        TestFiles::writeFile(folder + QStringLiteral("/left-by-someone"), "x");
        bool failed = false;
        try {
            awaitResult([](QString a, QString f) -> QCoro::Task<bool> {
                co_await extractArchive(FileManager::defaultManager(), a, f);
                co_return true;
            }(archive, folder));
        } catch (const LauncherError& error) {
            failed = error.errorCase() == LauncherError::Case::archiveFailed;
        }
        QVERIFY(failed);
        // The literal run on its own leaves the link; the folder was emptied before it ran.
        QCOMPARE(TreeSnapshot::of(folder), QStringList{QStringLiteral("link link 0777 -> ../outside")});
    }

    void hundredThousandEntries() {
        QVERIFY(ArchiveCorpus::makeMany(corpus_.path()));
        compareWithLiteral(ArchiveCorpus::pathOf(corpus_.path(), "many"), true);
    }
};

QTEST_GUILESS_MAIN(TestArchiveExtraction)
#include "TestArchiveExtraction.moc"
