#pragma once

#include <QString>
#include <QUrl>

#include <optional>

// Where the two release manifests come from. Each address is worked out once per process, on its
// first read: an override from the environment when it is an https or file URL, else the release
// server's built-in address. Nothing else in the launcher knows a server address.

// The game manifest: "ZENTHO_UPDATE_MANIFEST", else https://<release host>/release/macos-arm64-manifest.json.
const QUrl& manifestURL();
// The launcher manifest: "ZENTHO_LAUNCHER_UPDATE_MANIFEST", else
// https://<release host>/release/macos-launcher-arm64-manifest.json.
const QUrl& launcherManifestURL();

// The built-in addresses, parsed once each; empty only if the compiled-in host does not parse.
const std::optional<QUrl>& defaultManifestURL();
const std::optional<QUrl>& defaultLauncherManifestURL();

// The URL parser used for overrides and defaults: QUrl in strict mode. Empty or unparsable text
// gives nothing. No trimming or other clean-up is done first.
std::optional<QUrl> parseEndpointURL(const QString& text);

// The release server address for `path` on `host` over https.
std::optional<QUrl> releaseServerURL(const QString& host, const QString& path);

// The pure decision: the override (the variable's value, absent when unset) when it parses to an
// https URL whose scheme is written exactly "https" (so "HTTPS:" is not one) or to a file URL,
// else `fallback`, else the file URL of /dev/null. A rejected override is silent.
QUrl chooseEndpointURL(const std::optional<QString>& override, const std::optional<QUrl>& fallback);
