#pragma once

#include <QString>
#include <QStringList>

// A release archive made by tar from a folder, measured and hashed as it streams out of tar, so
// a dry run can say what the archive would be without writing it anywhere.
struct PackedArchive {
    qint64 size = 0;
    QString sha256; // lower-case hex

    // Runs tar to make a gzip archive of `members` (names relative to `folder`; names sorted,
    // owner and group 0) and returns its size and digest. The bytes go to `path`, created new,
    // unless `path` is empty. Throws std::runtime_error with tar's own error text, removing what it
    // wrote.
    static PackedArchive make(const QString& folder, const QStringList& members, const QString& path);
};
