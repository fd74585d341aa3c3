#pragma once

#include <QByteArray>
#include <QString>

// Edits the text of a mimeapps.list, the file where desktops look up which application opens a
// kind of file or link, keeping every line that is not about the one handler it changes.
namespace MimeAppsList {

// `text` with `entry` as the default handler of `mimeType`: the line "<mimeType>=<entry>" in the
// [Default Applications] section (made when missing), in place of any earlier default for it.
QByteArray withDefault(const QByteArray& text, const QString& mimeType, const QString& entry);

// `text` with `entry` gone from every line that lists handlers of `mimeType`; a line that names
// nothing else goes with it.
QByteArray without(const QByteArray& text, const QString& mimeType, const QString& entry);

// True when `text` holds nothing but section headers and blank lines.
bool isEmpty(const QByteArray& text);

} // namespace MimeAppsList
