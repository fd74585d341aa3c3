// What the window shows of a running download: the fraction, and the caption whose speed is
// averaged over the last seconds and whose time left waits until it means something.

#include "model/DownloadMeter.h"

#include <QTest>

using namespace std::chrono_literals;

namespace {

struct Screen {
    double fraction = -2;
    QString caption = QStringLiteral("never shown");
    int shown = 0;
};

struct MeterUnderTest {
    Screen screen;
    std::chrono::milliseconds now{100000};
    DownloadMeter meter{[this](double fraction, const QString& caption) {
                            screen.fraction = fraction;
                            screen.caption = caption;
                            ++screen.shown;
                        },
                        [this] { return now; }};

    // `seconds` of a steady `rate` from `done`, reported every 250 ms; returns the new total.
    qint64 run(qint64 done, std::optional<qint64> total, double seconds, qint64 rate) {
        for (int step = 0; step < int(seconds * 4); ++step) {
            now += 250ms;
            done += rate / 4;
            meter.progressed(done, total);
        }
        return done;
    }
};

} // namespace

class TestDownloadMeter : public QObject {
    Q_OBJECT

private slots:
    void firstReportShowsSizesOnly() {
        MeterUnderTest m;
        m.meter.progressed(0, 1'200'000'000);
        QCOMPARE(m.screen.fraction, 0.0);
        QCOMPARE(m.screen.caption, QStringLiteral("0 bytes of 1.2 GB"));
    }

    void speedAndTimeLeftAppearOnceMeaningful() {
        MeterUnderTest m;
        m.meter.progressed(0, 200'000'000);
        qint64 done = m.run(0, 200'000'000, 0.5, 10'000'000);
        QVERIFY2(!m.screen.caption.contains(QStringLiteral("/s")), qPrintable(m.screen.caption));
        done = m.run(done, 200'000'000, 1.0, 10'000'000);
        QVERIFY2(m.screen.caption.endsWith(QStringLiteral("10 MB/s")),
                 qPrintable(m.screen.caption));
        QVERIFY2(!m.screen.caption.contains(QStringLiteral("left")), qPrintable(m.screen.caption));
        done = m.run(done, 200'000'000, 1.0, 10'000'000);
        // 25 MB after 2.5 s at 10 MB/s: 175 MB to go.
        QCOMPARE(done, qint64(25'000'000));
        QCOMPARE(m.screen.caption,
                 QStringLiteral("25 MB of 200 MB \u00b7 10 MB/s \u00b7 about 18 s left"));
        QCOMPARE(m.screen.fraction, 0.125);
    }

    // The speed follows the last few seconds, not the average since the start.
    void speedIsAveragedOverTheLastSeconds() {
        MeterUnderTest m;
        m.meter.progressed(0, std::nullopt);
        qint64 done = m.run(0, std::nullopt, 20, 1'000'000);
        done = m.run(done, std::nullopt, 6, 10'000'000);
        QCOMPARE(m.screen.caption, QStringLiteral("80 MB \u00b7 10 MB/s"));
        QCOMPARE(m.screen.fraction, 0.0); // no total: no fraction to show
    }

    // A resumed download starts at what was kept, and the kept bytes are no speed.
    void resumedDownloadStartsAtWhatWasKept() {
        MeterUnderTest m;
        m.meter.progressed(600'000'000, 1'200'000'000);
        QCOMPARE(m.screen.fraction, 0.5);
        m.run(600'000'000, 1'200'000'000, 4, 2'000'000);
        QVERIFY2(m.screen.caption.contains(QStringLiteral(" \u00b7 2.0 MB/s \u00b7 ")),
                 qPrintable(m.screen.caption));
    }

    // Bytes come in thousands of pieces a second; the window is redrawn a few times a second.
    void showsAtMostFiveTimesASecond() {
        MeterUnderTest m;
        for (int i = 0; i < 1000; ++i) {
            m.now += 1ms;
            m.meter.progressed(i * 1000, 1'000'000);
        }
        QVERIFY2(m.screen.shown <= 6, qPrintable(QString::number(m.screen.shown)));
        QVERIFY(m.screen.shown >= 4);
        m.meter.progressed(1'000'000, 1'000'000); // the last byte is always shown
        QCOMPARE(m.screen.fraction, 1.0);
    }

    void endClearsBoth() {
        MeterUnderTest m;
        m.meter.progressed(10, 100);
        QCOMPARE(m.screen.fraction, 0.1);
        m.meter.ended();
        QCOMPARE(m.screen.fraction, -1.0);
        QCOMPARE(m.screen.caption, QString());
    }
};

QTEST_APPLESS_MAIN(TestDownloadMeter)
#include "TestDownloadMeter.moc"
