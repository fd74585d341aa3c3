// Sizes, speeds and times of a transfer as the player reads them under the window's column and
// in the disk-space error.

#include "net/TransferText.h"

#include <QTest>

using namespace std::chrono_literals;

class TestTransferText : public QObject {
    Q_OBJECT

private slots:
    void sizesAreDecimalWithThreeFiguresAtMost_data() {
        QTest::addColumn<qint64>("bytes");
        QTest::addColumn<QString>("text");
        QTest::newRow("nothing") << qint64(0) << QStringLiteral("0 bytes");
        QTest::newRow("one") << qint64(1) << QStringLiteral("1 byte");
        QTest::newRow("below a kilobyte") << qint64(999) << QStringLiteral("999 bytes");
        QTest::newRow("a kilobyte, not a kibibyte") << qint64(1000) << QStringLiteral("1.0 kB");
        QTest::newRow("one decimal below ten") << qint64(1234) << QStringLiteral("1.2 kB");
        QTest::newRow("rounds up to ten") << qint64(9960) << QStringLiteral("10 kB");
        QTest::newRow("whole above ten") << qint64(148'400'000) << QStringLiteral("148 MB");
        QTest::newRow("free space") << qint64(310'000'000) << QStringLiteral("310 MB");
        QTest::newRow("never 1000 of a unit") << qint64(999'950) << QStringLiteral("1.0 MB");
        QTest::newRow("gigabytes") << qint64(1'200'000'000) << QStringLiteral("1.2 GB");
        QTest::newRow("mebibytes are not megabytes")
            << qint64(1024 * 1024) << QStringLiteral("1.0 MB");
        QTest::newRow("terabytes") << qint64(2'500'000'000'000) << QStringLiteral("2.5 TB");
    }
    void sizesAreDecimalWithThreeFiguresAtMost() {
        QFETCH(qint64, bytes);
        QFETCH(QString, text);
        QCOMPARE(TransferText::size(bytes), text);
    }

    void speedsAreSizesPerSecond() {
        QCOMPARE(TransferText::speed(45'000'000), QStringLiteral("45 MB/s"));
        QCOMPARE(TransferText::speed(1'500'000), QStringLiteral("1.5 MB/s"));
        QCOMPARE(TransferText::speed(512), QStringLiteral("512 bytes/s"));
        QCOMPARE(TransferText::speed(0), QStringLiteral("0 bytes/s"));
    }

    void timeLeftIsRounded_data() {
        QTest::addColumn<qint64>("seconds");
        QTest::addColumn<QString>("text");
        QTest::newRow("seconds") << qint64(25) << QStringLiteral("about 25 s left");
        QTest::newRow("a minute") << qint64(60) << QStringLiteral("about 1 min left");
        QTest::newRow("rounded minutes") << qint64(200) << QStringLiteral("about 3 min left");
        QTest::newRow("an hour") << qint64(3600) << QStringLiteral("about 1 h left");
        QTest::newRow("hours and minutes")
            << qint64(3900) << QStringLiteral("about 1 h 5 min left");
    }
    void timeLeftIsRounded() {
        QFETCH(qint64, seconds);
        QFETCH(QString, text);
        QCOMPARE(TransferText::timeLeft(std::chrono::seconds(seconds)), text);
    }

    void captionShowsWhatIsKnown() {
        QCOMPARE(TransferText::caption(148'000'000, 1'200'000'000, 45'000'000.0, 25s),
                 QStringLiteral("148 MB of 1.2 GB \u00b7 45 MB/s \u00b7 about 25 s left"));
        // Before the speed has settled: sizes only.
        QCOMPARE(TransferText::caption(148'000'000, 1'200'000'000, std::nullopt, std::nullopt),
                 QStringLiteral("148 MB of 1.2 GB"));
        // Without a Content-Length: bytes and speed, never a time left.
        QCOMPARE(TransferText::caption(148'000'000, std::nullopt, 45'000'000.0, 25s),
                 QStringLiteral("148 MB \u00b7 45 MB/s"));
    }
};

QTEST_APPLESS_MAIN(TestTransferText)
#include "TestTransferText.moc"
