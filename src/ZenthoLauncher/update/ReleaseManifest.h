#pragma once

#include <QByteArray>
#include <QString>
#include <QUrl>

// One downloadable release as the release server describes it. The launcher only reads these.
struct ReleaseManifest {
    QString version;
    QString platform; // "macos-arm64" for the game, "macos-launcher-arm64" for the launcher
    QUrl url;         // the gzip tar archive
    QString sha256;   // 64 hex digits, either case
    QString executable;

    bool operator==(const ReleaseManifest&) const = default;
};
