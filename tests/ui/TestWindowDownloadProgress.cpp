// The window while a download runs: the divider fills and a caption appears in the free space
// under the column, fed by a real, throttled download from nginx; with no download the window is
// exactly the window it always was.

#include "LauncherModelProbe.h"
#include "ManifestJson.h"
#include "StandinGames.h"
#include "TestArchives.h"
#include "TestFiles.h"
#include "TestRequirements.h"
#include "TestServer.h"
#include "WindowFixture.h"

#include <QQuickItem>
#include <QRegularExpression>
#include <QTest>

namespace {

// The main button's tint (0.25, 0.76, 0.15) in 8-bit sRGB: the divider's fill.
constexpr int kTintR = 64, kTintG = 194, kTintB = 38;

QString referencePath() {
    return qEnvironmentVariable("ZENTHO_SOURCE_DIR") +
           QStringLiteral("/tests/data/window-idle.png");
}

// Pixels that differ between two screenshots of the same size.
int differingPixels(const QImage& a, const QImage& b) {
    int differing = 0;
    for (int y = 0; y < a.height(); ++y)
        for (int x = 0; x < a.width(); ++x)
            differing += a.pixel(x, y) != b.pixel(x, y) ? 1 : 0;
    return differing;
}

struct Sample {
    double progress;
    QString caption;
};

} // namespace

class TestWindowDownloadProgress : public QObject {
    Q_OBJECT

private slots:
    // The idle window, pixel for pixel, as it was before downloads showed their progress.
    void idleWindowIsUnchanged() {
        WindowFixture f;
        const QImage reference(referencePath());
        QVERIFY2(!reference.isNull(), qPrintable(referencePath()));
        const QImage idle = f.grab();
        WindowPixels::save(idle, QStringLiteral("window-idle-now.png"));
        QCOMPARE(idle.size(), reference.size());
        QCOMPARE(differingPixels(idle, reference.convertToFormat(QImage::Format_RGB32)), 0);
        QVERIFY(!f.property("downloadCaption", "visible").toBool());
    }

    // The twin: the same comparison sees a download's caption and fill.
    void runningDownloadChangesTheWindow() {
        WindowFixture f;
        const QImage reference = QImage(referencePath()).convertToFormat(QImage::Format_RGB32);
        LauncherModelProbe::showDownload(*f.model, 0.5, QStringLiteral("1.0 MB of 2.0 MB"));
        QVERIFY(QTest::qWaitFor([&] { return differingPixels(f.grab(), reference) > 0; }, 30000));
        const QImage shown = f.grab();
        QVERIFY(WindowPixels::count(shown, f.rectOf("divider"), kTintR, kTintG, kTintB, 2) > 100);
        QVERIFY(WindowPixels::countBright(shown, f.rectOf("downloadCaption")) > 0);
        // Everything the column holds stays where it was.
        const QRect column = f.rectOf("column");
        const QRect divider = f.rectOf("divider");
        int outsideDivider = 0;
        for (int y = column.top(); y <= column.bottom(); ++y)
            for (int x = column.left(); x <= column.right(); ++x)
                if (!divider.contains(x, y))
                    outsideDivider += shown.pixel(x, y) != reference.pixel(x, y) ? 1 : 0;
        QCOMPARE(outsideDivider, 0);
        // The caption lies outside the column, inside the window.
        QVERIFY(f.rectOf("downloadCaption").top() > column.bottom());
        QVERIFY(f.rectOf("downloadCaption").bottom() < 510);

        LauncherModelProbe::showDownload(*f.model, -1, QString());
        QVERIFY(QTest::qWaitFor([&] { return differingPixels(f.grab(), reference) == 0; }, 30000));
    }

    void throttledDownloadDrivesDividerAndCaption() {
        ZENTHO_REQUIRE(nginx);
        TestServer server;
        TestServer::trustInThisProcess();
        QTemporaryDir dir;
        const QString build = dir.filePath(QStringLiteral("build"));
        TestFiles::makeBuild(build);
        TestFiles::writeFile(build + QStringLiteral("/pad"),
                             TestFiles::randomBytes(4 * 1000 * 1000, 5));
        const QByteArray archive =
            TestArchives::bytesOf(build, {QStringLiteral("zentho"), QStringLiteral("pad")});
        const QString archivePath = server.writeFile(QStringLiteral("game.tar.gz"), archive);
        server.writeFile(
            QStringLiteral("game.json"),
            ManifestJson(QStringLiteral("0.3.0"), server.url(QStringLiteral("/throttle/game.tar.gz")).toString(),
                         TestArchives::sha256sum(archivePath)));
        WindowFixture::useMissingManifestsIn(dir.path());
        qputenv("ZENTHO_UPDATE_MANIFEST", server.url(QStringLiteral("/game.json")).toEncoded());

        WindowFixture f;
        QList<Sample> samples;
        QImage early, late;
        bool over = false;
        // Sampled at every change of the caption, which the window has already taken in by then:
        // what the player saw, however fast or slowly the download and the test run.
        connect(f.model.get(), &LauncherModel::downloadCaptionChanged, this, [&] {
            const double progress = f.model->downloadProgress();
            if (progress < 0) {
                over = !samples.isEmpty();
                return;
            }
            samples.append({progress, f.property("downloadCaption", "text").toString()});
            if (early.isNull() && progress > 0.25)
                early = f.grab();
            if (late.isNull() && progress > 0.7)
                late = f.grab();
        });
        f.model->updateAndPlay();
        QTRY_VERIFY_WITH_TIMEOUT(over, 300000);
        QVERIFY2(samples.size() > 10, qPrintable(QString::number(samples.size())));
        for (int i = 1; i < samples.size(); ++i)
            QVERIFY(samples[i].progress >= samples[i - 1].progress);
        QVERIFY(samples.last().progress > 0.7);
        const QString size = QStringLiteral("4.0 MB");
        QVERIFY2(samples.first().caption.contains(QStringLiteral(" of ") + size),
                 qPrintable(samples.first().caption));
        // After a second or two the speed follows, then the time left.
        QVERIFY(std::any_of(samples.cbegin(), samples.cend(), [](const Sample& s) {
            return QRegularExpression(QStringLiteral("^[0-9.]+ [kM]?B of 4.0 MB \u00b7 [0-9.]+ "
                                                     "[kM]?B/s \u00b7 about \\d+ s left$"))
                .match(s.caption)
                .hasMatch();
        }));
        QVERIFY(!early.isNull() && !late.isNull());
        WindowPixels::save(early, QStringLiteral("window-download-early.png"));
        WindowPixels::save(late, QStringLiteral("window-download-late.png"));
        const QRect divider = f.rectOf("divider");
        const int earlyFill = WindowPixels::count(early, divider, kTintR, kTintG, kTintB, 2);
        const int lateFill = WindowPixels::count(late, divider, kTintR, kTintG, kTintB, 2);
        qInfo("divider fill: %d then %d pixels; first caption \"%s\", last \"%s\"", earlyFill,
              lateFill, qPrintable(samples.first().caption), qPrintable(samples.last().caption));
        QVERIFY(earlyFill > 0);
        QVERIFY(lateFill > earlyFill);
        QVERIFY(differingPixels(early, late) > 0);

        // Once the download is over the caption goes and the divider is a plain rule again.
        QTRY_COMPARE_WITH_TIMEOUT(f.model->downloadCaption(), QString(), 60000);
        QCOMPARE(WindowPixels::count(f.grab(), divider, kTintR, kTintG, kTintB, 2), 0);
        QTRY_VERIFY_WITH_TIMEOUT(!f.model->busy() || f.platform.quitCount > 0, 60000);
    }
};

QTEST_MAIN(TestWindowDownloadProgress)
#include "TestWindowDownloadProgress.moc"
