#include "TestFiles.h"

#include "platform/FileManager.h"
#include "storage/RolloutPlace.h"

#include <QTemporaryDir>
#include <QTest>

// Each installation's place for staged rollouts: drawn once, kept, and drawn again only when what
// is kept cannot be a place.
class TestRolloutPlace : public QObject {
    Q_OBJECT

    QTemporaryDir dir_;
    QString file() const { return dir_.filePath(QString::fromLatin1(RolloutPlace::kFileName)); }
    double place() const { return RolloutPlace::of(FileManager::defaultManager(), dir_.path()); }

private slots:
    void init() { QFile::remove(file()); }

    void firstPlaceIsDrawnAndKept() {
        const double first = place();
        QVERIFY(first >= 0 && first < 100);
        QVERIFY(QFile::exists(file()));
        for (int i = 0; i < 5; ++i)
            QCOMPARE(place(), first);
    }

    // Places are drawn, not given: many fresh installations spread over the whole range.
    void placesSpreadOverTheRange() {
        int low = 0;
        for (int i = 0; i < 200; ++i) {
            QFile::remove(file());
            low += place() < 50 ? 1 : 0;
        }
        QVERIFY2(low > 40 && low < 160, qPrintable(QString::number(low)));
    }

    void keptPlaceIsRead() {
        TestFiles::writeFile(file(), "42.5\n");
        QCOMPARE(place(), 42.5);
    }

    // The twin: what cannot be a place is replaced by a new draw, which is kept.
    void unreadablePlaceIsDrawnAgain_data() {
        QTest::addColumn<QByteArray>("kept");
        QTest::newRow("text") << QByteArray("soon\n");
        QTest::newRow("100") << QByteArray("100\n");
        QTest::newRow("negative") << QByteArray("-3\n");
        QTest::newRow("empty") << QByteArray();
    }
    void unreadablePlaceIsDrawnAgain() {
        QFETCH(QByteArray, kept);
        TestFiles::writeFile(file(), kept);
        const double drawn = place();
        QVERIFY(drawn >= 0 && drawn < 100);
        QVERIFY(TestFiles::readFile(file()) != kept);
        QCOMPARE(place(), drawn);
    }
};

QTEST_GUILESS_MAIN(TestRolloutPlace)
#include "TestRolloutPlace.moc"
