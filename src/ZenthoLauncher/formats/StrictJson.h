#pragma once

#include <QByteArray>
#include <QJsonValue>
#include <QString>

// The launcher's one JSON reader, for release manifests and the state file. Stricter than
// QJsonDocument where no correct writer ever strays: a raw control character (U+0000-U+001F)
// inside a string, a \u escape of a surrogate that is not a high one followed by a low one, and
// bytes that are not UTF-8 (overlong forms, encoded surrogates, code points past U+10FFFF) are
// refused. More lenient where a correct writer may legitimately go: a number too large or too
// small for a double is read as an infinity or a zero instead of failing the whole text, so an
// odd number in a member nobody reads costs nothing.
//
// Otherwise it reads what QJsonDocument reads: the top level is an object or an array, a leading
// UTF-8 byte-order mark and blanks around it are allowed, a repeated key keeps its last value.
struct StrictJson {
    QJsonValue value; // an object or an array when `error` is null
    QString error;    // why the text was refused, with the byte offset where it went wrong

    bool ok() const { return error.isNull(); }

    static StrictJson parse(const QByteArray& text);
};
