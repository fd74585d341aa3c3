#include "WindowIdentity.h"

#include "TestFiles.h"
#include "XvfbSession.h"

#include <QImage>
#include <QRegularExpression>
#include <QStringList>

namespace WindowIdentity {

namespace {

QString sourceDir() {
    return qEnvironmentVariable("ZENTHO_SOURCE_DIR");
}

} // namespace

QString entryWindowClass() {
    const QString entry = QString::fromUtf8(
        TestFiles::readFile(sourceDir() + QStringLiteral("/data/zentho-launcher.desktop.in")));
    for (const QString& line : entry.split(QLatin1Char('\n'))) {
        if (line.startsWith(QLatin1String("StartupWMClass=")))
            return line.mid(15);
    }
    return {};
}

QString windowClass(const XvfbSession& screen, const QString& window) {
    // WM_CLASS = "instance", "class"
    static const QRegularExpression pair(QStringLiteral("^WM_CLASS = \"([^\"]*)\", \"([^\"]*)\"$"));
    const QRegularExpressionMatch match = pair.match(screen.windowProperty(window, QStringLiteral("WM_CLASS")));
    return match.hasMatch() ? match.captured(2) : QString();
}

bool carriesTheLauncherIcon(const XvfbSession& screen, const QString& window, QString* why) {
    auto fail = [&](const QString& text) {
        if (why)
            *why = text;
        return false;
    };
    const QImage expected = QImage(sourceDir() + QStringLiteral("/data/zentho-launcher.png"))
                                .convertToFormat(QImage::Format_ARGB32);
    if (expected.isNull())
        return fail(QStringLiteral("the icon file cannot be read"));
    // _NET_WM_ICON = width, height, width * height ARGB values, then further sizes, if any.
    const QString text = screen.windowProperty(window, QStringLiteral("_NET_WM_ICON"), QStringLiteral("32c"));
    const qsizetype equals = text.indexOf(QLatin1String(" = "));
    if (!text.startsWith(QLatin1String("_NET_WM_ICON")) || equals < 0)
        return fail(QStringLiteral("no icon: ") + text.left(200));
    const QStringList values = text.mid(equals + 3).split(QStringLiteral(", "));
    if (values.size() < 2)
        return fail(QStringLiteral("no icon: ") + text.left(200));
    const int width = values.at(0).toInt();
    const int height = values.at(1).toInt();
    if (QSize(width, height) != expected.size() || values.size() < 2 + qsizetype(width) * height)
        return fail(QStringLiteral("an icon of %1x%2").arg(width).arg(height));
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const QRgb shown = values.at(2 + y * width + x).toUInt();
            const QRgb drawn = expected.pixel(x, y);
            // Fully transparent pixels carry no colour worth comparing.
            if (qAlpha(shown) == 0 && qAlpha(drawn) == 0)
                continue;
            if (std::abs(qAlpha(shown) - qAlpha(drawn)) > 1 || std::abs(qRed(shown) - qRed(drawn)) > 2 ||
                std::abs(qGreen(shown) - qGreen(drawn)) > 2 || std::abs(qBlue(shown) - qBlue(drawn)) > 2)
                return fail(QStringLiteral("pixel %1,%2 is %3, not %4")
                                .arg(x).arg(y).arg(shown, 8, 16, QLatin1Char('0')).arg(drawn, 8, 16, QLatin1Char('0')));
        }
    }
    return true;
}

} // namespace WindowIdentity
