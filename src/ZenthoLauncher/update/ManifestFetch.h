#pragma once

#include "errors/LauncherError.h"
#include "formats/ReleaseManifest.h"
#include "trust/TrustedKeys.h"

#include <QString>
#include <QUrl>

#include <QCoroTask>

class HttpClient;

// Which of the two release manifests is fetched, and what its failures are called.
struct ManifestKind {
    QString platform;            // the only `platform` value accepted
    QString noun;                // names the manifest in signature errors
    LauncherError unavailable;   // the answer is not HTTP 200
    LauncherError wrongPlatform; // `platform` differs

    static ManifestKind game();
    static ManifestKind launcher();
};

// Fetches the release manifest at `url` and applies the checks the game's and the launcher's
// manifests share, in this order, the first failure ending it:
//  1. The answer must be HTTP status 200 exactly (not checked for a file: URL), else
//     kind.unavailable.
//  2. Only when `keys` is not empty: the detached signature at ManifestSignature::signatureURL
//     must be there (HTTP 200, or an existing file for a file: URL) and made by one of `keys` over
//     the exact bytes fetched, else ManifestSignatureError. With no keys nothing more is fetched.
//  3. The body decodes as a ReleaseManifest (ManifestDecodingError passes through).
//  4. Only when `keys` is not empty: an "expires" member must lie in the future.
//  5. `platform` must be kind.platform, else kind.wrongPlatform.
// Transport errors of either fetch pass through unchanged.
QCoro::Task<ReleaseManifest> fetchReleaseManifest(HttpClient& http, QUrl url, ManifestKind kind,
                                                  TrustedKeys keys);
