#include "storage/InstalledState.h"

#include "formats/StrictJson.h"
#include "platform/FileManager.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonObject>

namespace {

void appendJsonString(QByteArray& out, const QString& text) {
    out.append('"');
    for (const char c : text.toUtf8()) {
        switch (c) {
        case '"': out.append("\\\""); break;
        case '\\': out.append("\\\\"); break;
        case '/': out.append("\\/"); break;
        case '\b': out.append("\\b"); break;
        case '\f': out.append("\\f"); break;
        case '\n': out.append("\\n"); break;
        case '\r': out.append("\\r"); break;
        case '\t': out.append("\\t"); break;
        default:
            if (static_cast<unsigned char>(c) < 0x20)
                out.append(QByteArray("\\u00") +
                           QByteArray::number(static_cast<unsigned char>(c), 16)
                               .rightJustified(2, '0'));
            else
                out.append(c);
        }
    }
    out.append('"');
}

} // namespace

QByteArray InstalledState::encode() const {
    QByteArray out("{\"version\":");
    appendJsonString(out, version);
    out.append(",\"path\":");
    appendJsonString(out, path);
    out.append('}');
    return out;
}

std::optional<InstalledState> InstalledState::decode(const QByteArray& json) {
    const StrictJson document = StrictJson::parse(json);
    if (!document.ok() || !document.value.isObject())
        return std::nullopt;
    const QJsonObject object = document.value.toObject();
    const QJsonValue version = object.value(QLatin1String("version"));
    const QJsonValue path = object.value(QLatin1String("path"));
    if (!version.isString() || !path.isString())
        return std::nullopt;
    return InstalledState{version.toString(), path.toString()};
}

InstalledState InstalledState::read(const FileManager& files, const QString& statePath,
                                    const InstalledState& fallback) {
    try {
        if (auto state = decode(files.readFile(statePath))) {
            // A relative path is taken from the folder of the record that holds it, once, here:
            // whoever then tests the build and whoever starts it see the same folder, whatever
            // the launcher's own working folder.
            if (!QDir::isAbsolutePath(state->path))
                state->path = QFileInfo(statePath).dir().filePath(state->path);
            return *state;
        }
    } catch (const std::exception&) {
        // A missing or unreadable file means no build was ever recorded.
    }
    return fallback;
}

void InstalledState::write(const FileManager& files, const QString& statePath) const {
    const QString temporary = statePath + QStringLiteral(".tmp");
    files.writeAtomically(temporary, encode());
    if (files.fileExists(statePath))
        files.replaceItem(statePath, temporary);
    else
        files.moveItem(temporary, statePath);
}
