#include "formats/ReleaseManifest.h"

#include "formats/StrictJson.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>

#include <algorithm>
#include <cctype>

namespace {

QString requiredString(const QJsonObject& object, const QString& key) {
    const auto found = object.constFind(key);
    if (found == object.constEnd())
        throw ManifestDecodingError(QStringLiteral("The manifest is missing \"%1\".").arg(key));
    if (found->isNull())
        throw ManifestDecodingError(QStringLiteral("The manifest's \"%1\" is null.").arg(key));
    if (!found->isString())
        throw ManifestDecodingError(
            QStringLiteral("The manifest's \"%1\" is not a string.").arg(key));
    return found->toString();
}

QUrl requiredURL(const QJsonObject& object, const QString& key) {
    const QString text = requiredString(object, key);
    QUrl url(text, QUrl::StrictMode);
    if (text.isEmpty() || !url.isValid())
        throw ManifestDecodingError(
            QStringLiteral("The manifest's \"%1\" is not a valid URL.").arg(key));
    return url;
}

bool isHexDigest(const QString& text) {
    if (text.size() != 64)
        return false;
    for (const QChar c : text) {
        if (c.unicode() > 0x7f || !std::isxdigit(c.unicode()))
            return false;
    }
    return true;
}

// The version names the build's folder in the storage (versions/<version>), so it must be one
// plain name: a "/" or ".." would place the build elsewhere, in the storage where a cache clear
// deletes it under the record or outside it, "" and "." name the versions folder itself, and a
// control character would reach file names and the window. Refused as a decoding failure, before
// anything is written.
QString plainVersion(const QJsonObject& object) {
    const QString version = requiredString(object, QStringLiteral("version"));
    const bool controls = std::any_of(version.cbegin(), version.cend(),
                                      [](QChar c) { return c.category() == QChar::Other_Control; });
    if (version.isEmpty() || version == QLatin1String(".") || version == QLatin1String("..") ||
        version.contains(QLatin1Char('/')) || controls)
        throw ManifestDecodingError(
            QStringLiteral("The manifest's \"version\" is not a plain folder name."));
    return version;
}

// The "chunks" member when it is complete and well formed; nothing otherwise.
std::optional<ReleaseChunks> optionalChunks(const QJsonObject& object) {
    const QJsonValue value = object.value(QStringLiteral("chunks"));
    if (!value.isObject())
        return std::nullopt;
    const QJsonObject chunks = value.toObject();
    const auto url = [&chunks](const QString& key) {
        const QJsonValue text = chunks.value(key);
        return text.isString() && !text.toString().isEmpty() ? QUrl(text.toString(), QUrl::StrictMode) : QUrl();
    };
    ReleaseChunks result{url(QStringLiteral("index")), chunks.value(QStringLiteral("sha256")).toString(),
                         url(QStringLiteral("store"))};
    if (!result.index.isValid() || !result.store.isValid() || !isHexDigest(result.sha256))
        return std::nullopt;
    const QUrl compressed = url(QStringLiteral("index_zst"));
    const QString compressedSha256 = chunks.value(QStringLiteral("index_zst_sha256")).toString();
    if (compressed.isValid() && isHexDigest(compressedSha256)) {
        result.compressedIndex = compressed;
        result.compressedSha256 = compressedSha256;
    }
    result.pack = url(QStringLiteral("pack"));
    return result;
}

// One JSON string literal, quotes and escapes included.
QByteArray jsonString(const QString& text) {
    const QByteArray array = QJsonDocument(QJsonArray{text}).toJson(QJsonDocument::Compact);
    return array.mid(1, array.size() - 2);
}

} // namespace

ReleaseManifest ReleaseManifest::decode(const QByteArray& json) {
    const StrictJson document = StrictJson::parse(json);
    if (!document.ok())
        throw ManifestDecodingError(
            QStringLiteral("The manifest is not valid JSON: %1.").arg(document.error));
    if (!document.value.isObject())
        throw ManifestDecodingError(QStringLiteral("The manifest is not a JSON object."));
    const QJsonObject object = document.value.toObject();

    ReleaseManifest manifest;
    manifest.version = plainVersion(object);
    manifest.platform = requiredString(object, QStringLiteral("platform"));
    manifest.url = requiredURL(object, QStringLiteral("url"));
    manifest.sha256 = requiredString(object, QStringLiteral("sha256"));
    manifest.executable = requiredString(object, QStringLiteral("executable"));
    manifest.chunks = optionalChunks(object);
    manifest.rollout = Rollout::from(object.value(QStringLiteral("rollout")));
    return manifest;
}

QByteArray ReleaseManifest::encode() const {
    return "{\"version\":" + jsonString(version) + ",\"platform\":" + jsonString(platform) +
           ",\"url\":" + jsonString(url.toString(QUrl::FullyEncoded)) +
           ",\"sha256\":" + jsonString(sha256) + ",\"executable\":" + jsonString(executable) +
           (chunks ? ",\"chunks\":{\"index\":" + jsonString(chunks->index.toString(QUrl::FullyEncoded)) +
                         ",\"sha256\":" + jsonString(chunks->sha256) +
                         ",\"store\":" + jsonString(chunks->store.toString(QUrl::FullyEncoded)) +
                         (chunks->compressedIndex.isValid()
                              ? ",\"index_zst\":" + jsonString(chunks->compressedIndex.toString(QUrl::FullyEncoded)) +
                                    ",\"index_zst_sha256\":" + jsonString(chunks->compressedSha256)
                              : QByteArray()) +
                         (chunks->pack.isValid() ? ",\"pack\":" + jsonString(chunks->pack.toString(QUrl::FullyEncoded))
                                                 : QByteArray()) +
                         "}"
                   : QByteArray()) +
           (rollout ? ",\"rollout\":" + rollout->encode() : QByteArray()) + "}";
}
