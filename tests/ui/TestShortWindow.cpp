// The window as short as it lets itself be made to fit a short screen: every row of the column
// still shows whole and in order, and a download's caption stays clear under the column.
// (tests/e2e/TestWindowFitsTheScreen shows the real window shrinking on a real screen.)

#include "LauncherModelProbe.h"
#include "WindowFixture.h"

#include <QQuickItem>
#include <QQuickWindow>
#include <QTest>

#include <string_view>

namespace {

const char* const kRows[] = {"titleText", "subtitleText", "spacer", "installedText", "statusText",
                             "updateAndPlayButton", "divider", "installedSectionText", "installedRow",
                             "installedHintText", "copyDataFolderButton", "storageNoteText"};

// Whether every row lies whole inside the window, each below the one before.
bool rowsShowInOrder(const WindowFixture& f) {
    const QRect window(QPoint(0, 0), f.window->window()->size());
    int previousBottom = -1;
    for (const char* row : kRows) {
        const QRect rect = f.rectOf(row);
        if (!window.contains(rect) || rect.top() <= previousBottom) {
            qWarning("%s lies at %d..%d", row, rect.top(), rect.bottom());
            return false;
        }
        previousBottom = rect.bottom();
    }
    return true;
}

// Pixels of `area` not in the window's background colour.
int drawnPixels(const QImage& image, const QRect& area) {
    const QRect inside = area.intersected(image.rect());
    return inside.width() * inside.height() - WindowPixels::count(image, inside, 5, 19, 10, 2);
}

int shortestHeight(const WindowFixture& f) {
    return f.window->window()->property("shortestHeight").toInt();
}

} // namespace

class TestShortWindow : public QObject {
    Q_OBJECT

private slots:
    void shortestWindowShowsEveryRow() {
        WindowFixture f;
        const int shortest = shortestHeight(f);
        QVERIFY2(shortest > f.rectOf("column").height() && shortest < 510, qPrintable(QString::number(shortest)));
        f.setHeight(shortest);
        LauncherModelProbe::showDownload(*f.model, 0.5, QStringLiteral("1.0 MB of 2.0 MB"));
        QTRY_VERIFY(f.property("downloadCaption", "visible").toBool());
        const QImage image = f.grab();
        WindowPixels::save(image, QStringLiteral("window-shortest.png"));
        QVERIFY(rowsShowInOrder(f));
        for (const char* row : kRows)
            QVERIFY2(std::string_view(row) == "spacer" || drawnPixels(image, f.rectOf(row)) > 0, row);
        QVERIFY(f.rectOf("downloadCaption").top() > f.rectOf("column").bottom());
        QVERIFY(f.rectOf("downloadCaption").bottom() < shortest);
    }

    // The twin: any shorter, and the caption would run into the column.
    void shorterStillWouldCrowdTheCaption() {
        WindowFixture f;
        f.setHeight(shortestHeight(f) - 12);
        LauncherModelProbe::showDownload(*f.model, 0.5, QStringLiteral("1.0 MB of 2.0 MB"));
        QTRY_VERIFY(f.property("downloadCaption", "visible").toBool());
        QVERIFY(f.rectOf("downloadCaption").top() <= f.rectOf("column").bottom());
    }
};

QTEST_MAIN(TestShortWindow)
#include "TestShortWindow.moc"
