#include "update/UpdateEndpoints.h"

#include <QProcessEnvironment>

namespace {

const QString gameVariable = QStringLiteral("ZENTHO_UPDATE_MANIFEST");
const QString launcherVariable = QStringLiteral("ZENTHO_LAUNCHER_UPDATE_MANIFEST");

std::optional<QString> environmentValue(const QString& name) {
    // A snapshot of the whole environment, taken at the moment of the first read.
    const QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    if (!environment.contains(name))
        return std::nullopt;
    return environment.value(name);
}

} // namespace

std::optional<QUrl> parseEndpointURL(const QString& text) {
    if (text.isEmpty())
        return std::nullopt;
    QUrl url(text, QUrl::StrictMode);
    if (!url.isValid())
        return std::nullopt;
    return url;
}

std::optional<QUrl> releaseServerURL(const QString& host, const QString& path) {
    return parseEndpointURL(QStringLiteral("https://") + host + path);
}

QUrl chooseEndpointURL(const std::optional<QString>& override, const std::optional<QUrl>& fallback) {
    if (override) {
        if (const std::optional<QUrl> url = parseEndpointURL(*override)) {
            // QUrl reports the scheme lower-cased; "HTTPS:" as written is not "https".
            if ((url->scheme() == QLatin1String("https") &&
                 override->startsWith(QLatin1String("https:"))) ||
                url->isLocalFile())
                return *url;
        }
    }
    if (fallback)
        return *fallback;
    return QUrl::fromLocalFile(QStringLiteral("/dev/null"));
}

// Function-local statics: initialised exactly once, on first use, safely across threads.

const std::optional<QUrl>& defaultManifestURL() {
    static const std::optional<QUrl> url = releaseServerURL(
        QStringLiteral(ZENTHO_RELEASE_HOST), QStringLiteral("/release/macos-arm64-manifest.json"));
    return url;
}

const std::optional<QUrl>& defaultLauncherManifestURL() {
    static const std::optional<QUrl> url =
        releaseServerURL(QStringLiteral(ZENTHO_RELEASE_HOST),
                         QStringLiteral("/release/macos-launcher-arm64-manifest.json"));
    return url;
}

const QUrl& manifestURL() {
    static const QUrl url = chooseEndpointURL(environmentValue(gameVariable), defaultManifestURL());
    return url;
}

const QUrl& launcherManifestURL() {
    static const QUrl url =
        chooseEndpointURL(environmentValue(launcherVariable), defaultLauncherManifestURL());
    return url;
}
