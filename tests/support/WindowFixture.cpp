#include "WindowFixture.h"

#include "LauncherModelProbe.h"
#include "TestFiles.h"

#include <QAccessible>
#include <QDir>
#include <QQuickItem>
#include <QQuickWindow>
#include <QTest>
#include <QUrl>

const QString WindowFixture::kBundleExe =
    QStringLiteral("/opt/games/ZenthoLauncher.app/Contents/MacOS/ZenthoLauncher");

void WindowFixture::useMissingManifestsIn(const QString& folder) {
    qputenv("ZENTHO_UPDATE_MANIFEST", QUrl::fromLocalFile(folder + QStringLiteral("/game.json")).toEncoded());
    qputenv("ZENTHO_LAUNCHER_UPDATE_MANIFEST",
            QUrl::fromLocalFile(folder + QStringLiteral("/launcher.json")).toEncoded());
}

WindowFixture::WindowFixture(const QStringList& savedVersions) {
    for (const QString& version : savedVersions)
        TestFiles::makeBuild(home.versionsRoot() + QLatin1Char('/') + version);
    model = std::make_unique<LauncherModel>(platform);
    LauncherModelProbe::setStartupWatch(*model, games.watch());
    window = std::make_unique<MainWindow>(*model, platform);
    window->show();
    QVERIFY(QTest::qWaitForWindowExposed(window->window()));
}

QQuickItem* WindowFixture::item(const char* name) const {
    auto* found = window->window()->findChild<QQuickItem*>(QString::fromLatin1(name));
    if (!found)
        qFatal("no item named %s in the window", name);
    return found;
}

QVariant WindowFixture::property(const char* name, const char* property) const {
    return item(name)->property(property);
}

QRect WindowFixture::rectOf(const char* name) const {
    QQuickItem* it = item(name);
    return it->mapRectToScene(QRectF(0, 0, it->width(), it->height())).toAlignedRect();
}

QImage WindowFixture::grab() const {
    return window->window()->grabWindow().convertToFormat(QImage::Format_RGB32);
}

void WindowFixture::setHeight(int height) const {
    QQuickWindow* shown = window->window();
    shown->setMinimumHeight(height);
    shown->setMaximumHeight(height);
    shown->resize(shown->width(), height);
    // The items follow once the window has taken the new size.
    QTRY_COMPARE(shown->contentItem()->height(), qreal(height));
}

namespace WindowPixels {

bool near(QRgb pixel, int r, int g, int b, int tolerance) {
    return std::abs(qRed(pixel) - r) <= tolerance && std::abs(qGreen(pixel) - g) <= tolerance &&
           std::abs(qBlue(pixel) - b) <= tolerance;
}

int count(const QImage& image, const QRect& area, int r, int g, int b, int tolerance) {
    int found = 0;
    const QRect inside = area.intersected(image.rect());
    for (int y = inside.top(); y <= inside.bottom(); ++y)
        for (int x = inside.left(); x <= inside.right(); ++x)
            found += near(image.pixel(x, y), r, g, b, tolerance) ? 1 : 0;
    return found;
}

int countBright(const QImage& image, const QRect& area) {
    int found = 0;
    const QRect inside = area.intersected(image.rect());
    for (int y = inside.top(); y <= inside.bottom(); ++y)
        for (int x = inside.left(); x <= inside.right(); ++x)
            found += qGray(image.pixel(x, y)) > 128 ? 1 : 0;
    return found;
}

int differing(const QImage& a, const QImage& b, const QRect& area) {
    int found = 0;
    const QRect inside = area.intersected(a.rect()).intersected(b.rect());
    for (int y = inside.top(); y <= inside.bottom(); ++y)
        for (int x = inside.left(); x <= inside.right(); ++x)
            found += a.pixel(x, y) != b.pixel(x, y) ? 1 : 0;
    return found;
}

void save(const QImage& image, const QString& name) {
    const QString folder = qEnvironmentVariable("ZENTHO_BUILD_DIR", QDir::tempPath()) +
                           QStringLiteral("/screenshots");
    QDir().mkpath(folder);
    QVERIFY(image.save(folder + QLatin1Char('/') + name));
}

} // namespace WindowPixels

QString accessibleName(QObject* object) {
    QAccessibleInterface* iface = QAccessible::queryAccessibleInterface(object);
    return iface ? iface->text(QAccessible::Name) : QString();
}
