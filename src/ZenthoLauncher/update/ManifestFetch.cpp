#include "update/ManifestFetch.h"

#include "formats/ManifestExpiry.h"
#include "net/HttpClient.h"
#include "trust/ManifestSignature.h"

#include <QDateTime>
#include <QFileInfo>

#include <optional>

namespace {

// The body at `url` when it is there: an HTTP 200 answer, or an existing local file. Nothing when
// the server or the folder has no such file.
QCoro::Task<std::optional<QByteArray>> fetchIfPresent(HttpClient& http, QUrl url) {
    if (url.isLocalFile() && !QFileInfo::exists(url.toLocalFile()))
        co_return std::nullopt;
    HttpResponse response = co_await http.data(url);
    if (!url.isLocalFile() && response.statusCode != std::optional<int>(200))
        co_return std::nullopt;
    co_return std::move(response.body);
}

} // namespace

ManifestKind ManifestKind::game() {
    return {QStringLiteral("macos-arm64"), QStringLiteral("update manifest"),
            LauncherError::badManifest(), LauncherError::wrongPlatform()};
}

ManifestKind ManifestKind::launcher() {
    return {QStringLiteral("macos-launcher-arm64"), QStringLiteral("launcher update manifest"),
            LauncherError::badLauncherManifest(), LauncherError::wrongLauncherPlatform()};
}

QCoro::Task<ReleaseManifest> fetchReleaseManifest(HttpClient& http, QUrl url, ManifestKind kind,
                                                  TrustedKeys keys) {
    const HttpResponse response = co_await http.data(url);
    // A manifest read from a local file has no HTTP status to check.
    if (!url.isLocalFile() && response.statusCode != std::optional<int>(200))
        throw kind.unavailable;

    const bool signedOnly = !keys.empty();
    if (signedOnly) {
        const std::optional<QByteArray> signature =
            co_await fetchIfPresent(http, ManifestSignature::signatureURL(url));
        if (!signature)
            throw ManifestSignatureError(QStringLiteral("The %1 is not signed.").arg(kind.noun));
        ManifestSignature::checkSignature(response.body, *signature, keys, kind.noun);
    }

    const ReleaseManifest manifest = ReleaseManifest::decode(response.body);
    if (signedOnly)
        ManifestExpiry::checkNotExpired(response.body, QDateTime::currentDateTimeUtc(), kind.noun);
    if (manifest.platform != kind.platform)
        throw kind.wrongPlatform;
    co_return manifest;
}
