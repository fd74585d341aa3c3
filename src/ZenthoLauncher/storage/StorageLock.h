#pragma once

#include <QString>

#include <QCoroTask>

// An exclusive hold on the launcher's storage folder for the length of one install or
// self-update. Every launcher that shares the folder takes it first, whatever desktop session or
// runtime folder it runs in, so two of them never download, unpack or record into it at the same
// time. The hold is a lock on the folder itself (flock), which the kernel drops when the holder
// ends, even by SIGKILL: a crash never leaves the storage locked.
class StorageLock {
public:
    // Waits, without holding up the main thread, until no other process holds `root`, then
    // holds it until the returned object goes away. `root` must exist; failures to open or lock
    // it throw FileError.
    static QCoro::Task<StorageLock> acquire(QString root);

    StorageLock(StorageLock&& other) noexcept;
    StorageLock& operator=(StorageLock&&) = delete;
    StorageLock(const StorageLock&) = delete;
    StorageLock& operator=(const StorageLock&) = delete;
    ~StorageLock();

private:
    explicit StorageLock(int fd) : fd_(fd) {}
    int fd_ = -1;
};
