#pragma once

#include <QString>
#include <QStringList>

// Normal, unusual and hostile gzip tar archives, made at test time with GNU tar, gzip and
// Python's tarfile, for proving that the fast listing and extraction end exactly as the literal
// `tar -tzf` and `tar -xzf` runs do.
namespace ArchiveCorpus {

struct Case {
    const char* name;
    // Whether the inflated run can vouch for its result, so that the fast path really answers:
    // for listing and for extraction. Everything else must be answered by the literal run.
    bool listsFast;
    bool extractsFast;
};

// Every case but the one with 100,000 entries, which is made on its own by makeMany().
const QList<Case>& cases();

// Writes every case of cases() to `folder` as <name>.tar.gz; returns false when a tool failed.
bool make(const QString& folder);
// Writes "many.tar.gz" to `folder`: 100 folders of 1,000 empty files each.
bool makeMany(const QString& folder);

QString pathOf(const QString& folder, const char* name);

// The entry a cut-off case ends in the middle of ("truncated" is the build's archive cut at half
// its bytes, which falls inside its 256 KiB of noise, by far its largest member); empty for the
// other cases.
QString cutEntry(const char* name);

} // namespace ArchiveCorpus
