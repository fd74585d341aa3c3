#include "desktop/MimeAppsList.h"

#include <QList>

namespace {

const QByteArray kDefaults = "[Default Applications]";

QList<QByteArray> linesOf(const QByteArray& text) {
    QList<QByteArray> lines = text.split('\n');
    while (!lines.isEmpty() && lines.last().isEmpty())
        lines.removeLast();
    return lines;
}

QByteArray joined(const QList<QByteArray>& lines) {
    return lines.isEmpty() ? QByteArray() : lines.join('\n') + '\n';
}

bool isSection(const QByteArray& line) {
    return line.startsWith('[') && line.trimmed().endsWith(']');
}

} // namespace

namespace MimeAppsList {

QByteArray withDefault(const QByteArray& text, const QString& mimeType, const QString& entry) {
    const QByteArray key = mimeType.toUtf8() + '=';
    const QByteArray handler = key + entry.toUtf8();
    QList<QByteArray> out;
    QByteArray section;
    bool written = false;
    // At the end of the defaults section, before the blank lines that set the next one apart.
    const auto addHandler = [&] {
        qsizetype at = out.size();
        while (at > 0 && out.at(at - 1).trimmed().isEmpty())
            --at;
        out.insert(at, handler);
        written = true;
    };
    for (const QByteArray& line : linesOf(text)) {
        if (isSection(line)) {
            if (section == kDefaults && !written)
                addHandler();
            section = line.trimmed();
        } else if (section == kDefaults && line.startsWith(key)) {
            continue;
        }
        out.append(line);
    }
    if (!written) {
        if (section != kDefaults)
            out.append(kDefaults);
        addHandler();
    }
    return joined(out);
}

QByteArray without(const QByteArray& text, const QString& mimeType, const QString& entry) {
    const QByteArray key = mimeType.toUtf8() + '=';
    QList<QByteArray> out;
    for (const QByteArray& line : linesOf(text)) {
        if (!line.startsWith(key)) {
            out.append(line);
            continue;
        }
        QList<QByteArray> kept;
        for (const QByteArray& name : line.mid(key.size()).split(';'))
            if (!name.isEmpty() && name != entry.toUtf8())
                kept.append(name);
        if (!kept.isEmpty())
            out.append(key + kept.join(';') + ';');
    }
    return joined(out);
}

bool isEmpty(const QByteArray& text) {
    for (const QByteArray& line : linesOf(text))
        if (!line.trimmed().isEmpty() && !isSection(line))
            return false;
    return true;
}

} // namespace MimeAppsList
