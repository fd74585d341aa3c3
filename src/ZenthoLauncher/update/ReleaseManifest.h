#pragma once

#include <QByteArray>
#include <QString>
#include <QUrl>

#include <stdexcept>

// A manifest body that does not decode: not JSON, not an object, a required key missing or null,
// a value of the wrong type, or a url that does not parse. Reaches the user with its own text; it
// is deliberately not a LauncherError.
class ManifestDecodingError : public std::runtime_error {
public:
    explicit ManifestDecodingError(const QString& description)
        : std::runtime_error(description.toStdString()) {}
};

// One downloadable release as the release server describes it. The launcher only reads these.
struct ReleaseManifest {
    QString version;
    QString platform; // "macos-arm64" for the game, "macos-launcher-arm64" for the launcher
    QUrl url;         // the gzip tar archive
    QString sha256;   // 64 hex digits, either case
    QString executable;

    // Decodes a whole response body. The five keys are required and read in field order (the
    // first failure is the one reported); other keys are ignored. Checks nothing beyond the JSON
    // types and that `url` parses. Throws ManifestDecodingError.
    static ReleaseManifest decode(const QByteArray& json);
    // The same five keys in field order, `url` as a string.
    QByteArray encode() const;

    bool operator==(const ReleaseManifest&) const = default;
};
