#include "ArchiveCorpus.h"
#include "TaskOutcome.h"
#include "TestFiles.h"

#include "archive/Archive.h"
#include "archive/StreamedListing.h"
#include "errors/LauncherError.h"

#include <InflatedTarRun.h>

#include <QTemporaryDir>
#include <QTest>

namespace {

// How a listing ended, comparable as text: the names, or tar's error exactly as reported.
QString outcomeText(const std::function<QString()>& list) {
    try {
        return QStringLiteral("listed:\n") + list();
    } catch (const LauncherError& error) {
        return QStringLiteral("failed: ") + error.errorDescription();
    }
}

QString literalListing(const QString& archive) {
    return outcomeText([&] { return runTar(listArguments(archive)); });
}

// The archive's bytes reach the sink in pieces of `piece` bytes, as a download hands them over.
QString streamedListing(const QString& archive, qsizetype piece) {
    StreamedListing listing;
    const QByteArray bytes = TestFiles::readFile(archive);
    for (qsizetype at = 0; at < bytes.size(); at += piece)
        listing.append(bytes.constData() + at, std::size_t(std::min(piece, bytes.size() - at)));
    return outcomeText([&] { return awaitResult(listing.listingOf(archive)); });
}

// Whether the inflated run answers on its own for this archive, without the literal run.
bool inflatedRunIsClean(const QString& archive) {
    const std::unique_ptr<InflatedTarRun> run = startInflatedTar(streamedListArguments());
    run->finishFrom(QFile::encodeName(archive).toStdString());
    return run->wait().clean;
}

} // namespace

// The listing made while an archive streams in ends exactly as `tar -tzf` on the whole file: the
// same names, or the same error text, for normal, unusual, hostile and broken archives.
class TestStreamedListing : public QObject {
    Q_OBJECT

    QTemporaryDir dir_;

private slots:
    void initTestCase() { QVERIFY(ArchiveCorpus::make(dir_.path())); }

    void sameAsTheLiteralRun_data() {
        QTest::addColumn<QString>("archive");
        QTest::addColumn<bool>("fast");
        for (const ArchiveCorpus::Case& c : ArchiveCorpus::cases())
            QTest::newRow(c.name) << ArchiveCorpus::pathOf(dir_.path(), c.name) << c.listsFast;
    }
    void sameAsTheLiteralRun() {
        QFETCH(QString, archive);
        QFETCH(bool, fast);
        const QString literal = literalListing(archive);
        QCOMPARE(literal.startsWith(QStringLiteral("listed:")) || !fast, true);
        QCOMPARE(streamedListing(archive, 64 * 1024), literal);
        QCOMPARE(streamedListing(archive, 1000), literal);
        // The fast path really answers where it can, and stands aside where it cannot.
        QCOMPARE(inflatedRunIsClean(archive), fast);
    }

    // A body that starts again (a download that resumes from scratch) is listed from its new
    // first byte; what came before does not count.
    void restartForgetsWhatCameBefore() {
        const QString archive = ArchiveCorpus::pathOf(dir_.path(), "build");
        const QByteArray bytes = TestFiles::readFile(archive);
        StreamedListing listing;
        listing.append(bytes.constData(), std::size_t(bytes.size() / 3));
        listing.append("stray bytes", 11);
        listing.restart();
        listing.append(bytes.constData(), std::size_t(bytes.size()));
        QCOMPARE(outcomeText([&] { return awaitResult(listing.listingOf(archive)); }),
                 literalListing(archive));
        // Its twin: without the restart, the stray bytes spoil the streamed run, and the literal
        // run still gives the right answer.
        StreamedListing spoiled;
        spoiled.append("stray bytes", 11);
        spoiled.append(bytes.constData(), std::size_t(bytes.size()));
        QCOMPARE(outcomeText([&] { return awaitResult(spoiled.listingOf(archive)); }),
                 literalListing(archive));
    }

    // A sink that saw nothing (the body came some other way) lists the whole file.
    void nothingAppendedListsTheFile() {
        const QString archive = ArchiveCorpus::pathOf(dir_.path(), "pax-headers");
        StreamedListing listing;
        QCOMPARE(outcomeText([&] { return awaitResult(listing.listingOf(archive)); }),
                 literalListing(archive));
    }

    void hundredThousandEntries() {
        QVERIFY(ArchiveCorpus::makeMany(dir_.path()));
        const QString archive = ArchiveCorpus::pathOf(dir_.path(), "many");
        const QString literal = literalListing(archive);
        QCOMPARE(literal.count(QLatin1Char('\n')), 1 + 100 + 100000);
        QCOMPARE(streamedListing(archive, 256 * 1024), literal);
        QVERIFY(inflatedRunIsClean(archive));
    }
};

QTEST_GUILESS_MAIN(TestStreamedListing)
#include "TestStreamedListing.moc"
