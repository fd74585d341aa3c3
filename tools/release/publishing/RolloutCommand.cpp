// zentho-release rollout: sets, raises or halts the staged rollout of a published game manifest in
// place. Nothing is repacked: only the manifest (and its signature) change, as on every publish.

#include "ReleaseCommand.h"
#include "ReleaseFiles.h"
#include "ReleaseOptions.h"

#include "formats/ManifestExpiry.h"
#include "formats/ReleaseManifest.h"
#include "trust/Ed25519Key.h"

#include <QDateTime>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonValue>

#include <cstdio>
#include <optional>
#include <string>

namespace {

const char kUsage[] =
    "usage: zentho-release rollout (--percent P [--start TIME --hours H] | --all)\n"
    "                              [--sign-key KEY] MANIFEST\n"
    "\n"
    "Stages the game release MANIFEST (a published macos-arm64 manifest) in place, without\n"
    "repacking anything:\n"
    "  --percent P            offer it to P % of the installations (0 to 100). Raising P\n"
    "                         reaches more; 0 halts the rollout: no more installations get the\n"
    "                         release, and none that has it loses it.\n"
    "  --start TIME --hours H with --percent: nobody before TIME (UTC, as\n"
    "                         2026-12-01T09:00:00Z), then a share growing evenly from P % to\n"
    "                         100 % over H hours.\n"
    "  --all                  offer it to every installation (the rollout is over).\n"
    "Each installation draws its place once and keeps it, so a share that grows reaches the\n"
    "same installations first. A player following an invite, or with no build to start, is\n"
    "offered the release whatever the share.\n"
    "\n"
    "A signed manifest (MANIFEST.sig beside it) is signed again with --sign-key KEY and refused\n"
    "without it; its \"expires\" is kept. The signature goes down before the manifest, as\n"
    "publish lays them out. Prints manifest:, rollout: (the state, as verify shows it) and\n"
    "signature: when signed.\n";

std::runtime_error failure(const QString& text) { return std::runtime_error(text.toStdString()); }

Rollout rolloutFrom(const ReleaseOptions& options) {
    const std::optional<std::string> percent = options.one("--percent");
    const std::optional<std::string> start = options.one("--start");
    const std::optional<std::string> hours = options.one("--hours");
    if (!percent)
        throw UsageError("give --percent P or --all");
    if (start.has_value() != hours.has_value())
        throw UsageError("--start and --hours go together");
    // Read back through the launcher's own reading, so nothing is written that launchers ignore.
    QByteArray member = "{\"percent\":" + QByteArray::fromStdString(*percent);
    if (start)
        member += ",\"start\":\"" + QByteArray::fromStdString(*start) + "\",\"hours\":" + QByteArray::fromStdString(*hours);
    member += '}';
    const std::optional<Rollout> rollout =
        Rollout::from(QJsonDocument::fromJson("[" + member + "]").array().at(0));
    if (!rollout)
        throw UsageError("--percent must be a number from 0 to 100, --start a UTC time such as "
                         "2026-12-01T09:00:00Z and --hours a number of hours above 0 (a year at most)");
    return *rollout;
}

int runRollout(const std::vector<std::string>& arguments) {
    const ReleaseOptions options(arguments, {"--percent", "--start", "--hours", "--sign-key"}, {"--all"});
    if (options.operands().size() != 1)
        throw UsageError("give one MANIFEST");
    if (options.has("--all") && options.one("--percent"))
        throw UsageError("--all and --percent exclude each other");
    const std::optional<Rollout> rollout = options.has("--all") ? std::nullopt : std::optional(rolloutFrom(options));

    const QString manifestPath = QString::fromStdString(options.operands().front());
    const QString signaturePath = manifestPath + QStringLiteral(".sig");
    const QByteArray before = ReleaseFiles::readFile(manifestPath);
    ReleaseManifest manifest;
    try {
        manifest = ReleaseManifest::decode(before);
    } catch (const std::exception& error) {
        throw failure(manifestPath + QStringLiteral(": ") + QString::fromUtf8(error.what()));
    }
    if (manifest.platform != QLatin1String("macos-arm64"))
        throw failure(manifestPath + QStringLiteral(": rollouts stage game releases only (macos-arm64); this is ") +
                      manifest.platform);
    const std::optional<std::string> signKey = options.one("--sign-key");
    std::optional<Ed25519Key> key;
    if (signKey) {
        key = Ed25519Key::fromFile(*signKey);
        if (!key->hasPrivateKey())
            throw failure(QString::fromStdString(*signKey) + QStringLiteral(": is a public key; signing needs the private key"));
    } else if (QFileInfo::exists(signaturePath)) {
        throw failure(manifestPath + QStringLiteral(" is signed; give --sign-key to sign it again, or launchers that "
                                                    "require signed manifests would refuse it"));
    }
    std::optional<QDateTime> expires;
    try {
        expires = ManifestExpiry::expiry(before, QStringLiteral("manifest"));
    } catch (const std::exception& error) {
        throw failure(manifestPath + QStringLiteral(": ") + QString::fromUtf8(error.what()));
    }

    manifest.rollout = rollout;
    QByteArray json = manifest.encode();
    if (expires) {
        json.chop(1);
        json += ",\"expires\":\"" + ManifestExpiry::text(*expires).toUtf8() + "\"}";
    }
    json += '\n';
    if (!(ReleaseManifest::decode(json) == manifest))
        throw failure(QStringLiteral("the manifest does not read back as written"));
    if (key)
        ReleaseFiles::writeFileAtomically(signaturePath, QByteArray::fromStdString(key->sign(json.toStdString())));
    ReleaseFiles::writeFileAtomically(manifestPath, json);
    std::printf("manifest: %s\nrollout: %s\n", qPrintable(manifestPath),
                rollout ? qPrintable(rollout->describe(QDateTime::currentDateTimeUtc())) : "all installations");
    if (key)
        std::printf("signature: %s\n", qPrintable(signaturePath));
    return 0;
}

} // namespace

const ReleaseCommand rolloutCommand{"rollout", "offer a published game release to a share of installations",
                                    kUsage, &runRollout};
