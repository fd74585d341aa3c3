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
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <functional>

namespace {

// How an extraction ended: tar's error exactly as reported ("unpacked" when there was none), and
// the tree it left, to the last mode bit, byte and link target (TreeSnapshot).
struct Outcome {
    QString ended;
    QStringList tree;
};

Outcome outcomeOf(const QString& folder, const std::function<void()>& extract) {
    Outcome outcome{QStringLiteral("unpacked"), {}};
    try {
        extract();
    } catch (const LauncherError& error) {
        outcome.ended = QStringLiteral("failed: ") + error.errorDescription();
    }
    outcome.tree = TreeSnapshot::of(folder);
    return outcome;
}

// The tree without the line of `entry`, and that line.
std::pair<QStringList, QString> setApart(QStringList tree, const QString& entry) {
    const QString prefix = entry + QLatin1Char(' ');
    QString line;
    for (qsizetype i = 0; i < tree.size(); ++i) {
        if (tree[i].startsWith(prefix)) {
            line = tree.takeAt(i);
            break;
        }
    }
    return {tree, line};
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

    // `cutEntry`: the entry an archive that is cut off ends in, if it is.
    void compareWithLiteral(const QString& archive, bool fast, const QString& cutEntry = {}) {
        const QString literal = freshFolder();
        const Outcome expected =
            outcomeOf(literal, [&] { runTar(extractArguments(archive, literal)); });
        const QString folder = freshFolder();
        const Outcome actual = outcomeOf(folder, [&] {
            awaitResult([](QString a, QString f) -> QCoro::Task<bool> {
                co_await extractArchive(FileManager::defaultManager(), a, f);
                co_return true;
            }(archive, folder));
        });
        QCOMPARE(actual.ended, expected.ended);
        QCOMPARE(expected.ended == QStringLiteral("unpacked") || !fast, true);
        if (cutEntry.isEmpty()) {
            QCOMPARE(actual.tree, expected.tree);
        } else {
            // A cut-off archive is unpacked by `tar -xzf` both ways. tar stops in the middle of the
            // entry the cut falls in, before it sets that file's time and mode: the file keeps the
            // time its run wrote it (two runs straddle a second boundary on a slow machine), and
            // how much of it tar wrote depends on how the pipe from gzip split the last bytes
            // into reads. So of that one entry, two runs agree on the name, the kind, the mode tar
            // writes with and the bytes both wrote; the error and everything else must be exactly
            // the same.
            const auto [actualRest, actualCut] = setApart(actual.tree, cutEntry);
            const auto [expectedRest, expectedCut] = setApart(expected.tree, cutEntry);
            QCOMPARE(actualRest, expectedRest);
            QCOMPARE(actualCut.section(QLatin1Char(' '), 0, 1), cutEntry + QStringLiteral(" file"));
            QCOMPARE(actualCut.section(QLatin1Char(' '), 0, 2),
                     expectedCut.section(QLatin1Char(' '), 0, 2));
            const QByteArray actualBytes =
                TestFiles::readFile(folder + QLatin1Char('/') + cutEntry);
            const QByteArray expectedBytes =
                TestFiles::readFile(literal + QLatin1Char('/') + cutEntry);
            const qsizetype common = std::min(actualBytes.size(), expectedBytes.size());
            QCOMPARE(actualBytes.left(common), expectedBytes.left(common));
        }

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
        QTest::addColumn<QString>("cutEntry");
        for (const ArchiveCorpus::Case& c : ArchiveCorpus::cases())
            QTest::newRow(c.name) << ArchiveCorpus::pathOf(corpus_.path(), c.name) << c.extractsFast
                                  << ArchiveCorpus::cutEntry(c.name);
    }
    void sameAsTheLiteralRun() {
        QFETCH(QString, archive);
        QFETCH(bool, fast);
        QFETCH(QString, cutEntry);
        compareWithLiteral(archive, fast, cutEntry);
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
