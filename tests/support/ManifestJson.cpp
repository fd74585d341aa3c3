#include "ManifestJson.h"

#include <utility>

namespace {

// A JSON string holding `text`: quotes, backslashes and control characters escaped, nothing else.
QByteArray quoted(const QString& text) {
    QByteArray out = "\"";
    for (const char byte : text.toUtf8()) {
        const auto code = static_cast<unsigned char>(byte);
        if (byte == '"' || byte == '\\')
            out += '\\' + QByteArray(1, byte);
        else if (code < 0x20)
            out += "\\u00" + QByteArray::number(code, 16).rightJustified(2, '0');
        else
            out += byte;
    }
    return out + '"';
}

} // namespace

ManifestJson::ManifestJson(QString version, QString url, QString sha256)
    : version_(std::move(version)), url_(std::move(url)), sha256_(std::move(sha256)) {}

ManifestJson ManifestJson::launcher(QString version, QString url, QString sha256) {
    ManifestJson json(std::move(version), std::move(url), std::move(sha256));
    json.platform(QStringLiteral("macos-launcher-arm64")).executable(QStringLiteral("ZenthoLauncher.app"));
    return json;
}

ManifestJson& ManifestJson::platform(QString platform) {
    platform_ = std::move(platform);
    return *this;
}

ManifestJson& ManifestJson::executable(QString executable) {
    executable_ = std::move(executable);
    return *this;
}

ManifestJson& ManifestJson::member(QByteArray rawMember) {
    members_.append(std::move(rawMember));
    return *this;
}

ManifestJson& ManifestJson::lineEnd() {
    lineEnd_ = true;
    return *this;
}

QByteArray ManifestJson::bytes() const {
    QByteArray text = "{\"version\":" + quoted(version_) + ",\"platform\":" + quoted(platform_) +
                      ",\"url\":" + quoted(url_) + ",\"sha256\":" + quoted(sha256_) +
                      ",\"executable\":" + quoted(executable_);
    for (const QByteArray& member : members_)
        text += ',' + member;
    text += '}';
    if (lineEnd_)
        text += '\n';
    return text;
}
