#pragma once

#include <QProcess>
#include <QString>
#include <QTemporaryDir>

// A tmpfs of its own for a test, in a private mount namespace that lives as long as the object,
// reached through the /proc root of the process that holds the namespace. Its free space is the
// test's alone: nothing else on the machine writes there. Needs root.
class SmallDisk {
public:
    explicit SmallDisk(int megabytes);
    ~SmallDisk();
    SmallDisk(const SmallDisk&) = delete;
    SmallDisk& operator=(const SmallDisk&) = delete;

    // The tmpfs as this process sees it; empty when it could not be made.
    QString path() const { return path_; }

private:
    QTemporaryDir mountPoint_;
    QProcess holder_;
    QString path_;
};
