#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

class FileManager;

// The record of which build is current; also the format of the state file.
struct InstalledState {
    QString version;
    QString path; // absolute file-system path of the build's folder

    bool operator==(const InstalledState&) const = default;

    // One line of JSON, members in the order version, path, no whitespace, every "/" escaped
    // as "\/": the format the state file has always had.
    QByteArray encode() const;
    // Accepts any member order and whitespace; both members are required strings, other members
    // are ignored. None when the bytes are not such an object.
    static std::optional<InstalledState> decode(const QByteArray& json);

    // Reads the state file; a missing, unreadable or invalid file yields `fallback`. A relative
    // `path` in the file is returned resolved against the folder that holds the file.
    static InstalledState read(const FileManager& files, const QString& statePath,
                               const InstalledState& fallback);
    // Replaces the state file so that a crash or power cut at any moment leaves either the old
    // record or the new one: the record goes to "<state>.tmp" (itself written atomically and
    // flushed), which is then renamed over the state file.
    void write(const FileManager& files, const QString& statePath) const;
};
