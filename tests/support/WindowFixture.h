#pragma once

#include "GameWatch.h"
#include "RecordingPlatform.h"
#include "ScopedDataHome.h"
#include "model/LauncherModel.h"
#include "ui/MainWindow.h"

#include <QImage>
#include <QRect>
#include <QStringList>
#include <QVariant>

#include <memory>

class QQuickItem;

// One launcher window on a private data folder, shown offscreen, with the given builds saved
// in the versions folder. The platform records quits and clipboard writes; the games the window
// starts are watched by `games` (see GameWatch) and ended with the fixture.
struct WindowFixture {
    static const QString kBundleExe;

    // Points both manifest variables of this process at files in `folder` that do not exist, so
    // the main button's flow runs offline and ends at once.
    static void useMissingManifestsIn(const QString& folder);

    explicit WindowFixture(const QStringList& savedVersions = {});

    // The window's item with this objectName; the test stops if there is none.
    QQuickItem* item(const char* name) const;
    QVariant property(const char* name, const char* property) const;
    // Where the item is drawn, in window pixels.
    QRect rectOf(const char* name) const;
    QImage grab() const;
    // Makes the window `height` pixels high and no other height, as a short screen may.
    void setHeight(int height) const;

    ScopedDataHome home;
    GameWatch games;
    RecordingPlatform platform{kBundleExe, {kBundleExe}};
    std::unique_ptr<LauncherModel> model;
    std::unique_ptr<MainWindow> window;
};

namespace WindowPixels {

bool near(QRgb pixel, int r, int g, int b, int tolerance = 1);
// Pixels of `area` within `tolerance` of the colour.
int count(const QImage& image, const QRect& area, int r, int g, int b, int tolerance = 1);
// Pixels much brighter than the dark background: where text is drawn.
int countBright(const QImage& image, const QRect& area);
// Pixels of `area` that differ between two screenshots of the same window.
int differing(const QImage& a, const QImage& b, const QRect& area);
// Keeps a screenshot in <build>/screenshots for a person to look at.
void save(const QImage& image, const QString& name);

} // namespace WindowPixels

// What assistive technology reads as the object's name.
QString accessibleName(QObject* object);
