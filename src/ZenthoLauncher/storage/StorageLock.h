#pragma once

#include <QString>

#include <QCoroTask>

#include <chrono>

// An exclusive hold on the launcher's storage folder for the length of one install or
// self-update. Every launcher that shares the folder takes it first, whatever desktop session or
// runtime folder it runs in, so two of them never download, unpack or record into it at the same
// time. The hold is a lock on the folder itself (flock), which the kernel drops when the holder
// ends, even by SIGKILL: a crash never leaves the storage locked.
class StorageLock {
public:
    // How long a launcher waits for another that holds the folder: longer than any install
    // takes to hand over, short enough that a launcher that never lets go does not keep the
    // player's buttons disabled for ever.
    static constexpr std::chrono::milliseconds defaultPatience{30000};

    // Waits, without holding up the main thread, until no other process holds `root`, then
    // holds it until the returned object goes away. `root` must exist; failures to open or lock
    // it throw FileError, and a folder still held after `patience` throws StorageBusyError.
    static QCoro::Task<StorageLock> acquire(QString root,
                                            std::chrono::milliseconds patience = defaultPatience);

    StorageLock(StorageLock&& other) noexcept;
    StorageLock& operator=(StorageLock&&) = delete;
    StorageLock(const StorageLock&) = delete;
    StorageLock& operator=(const StorageLock&) = delete;
    ~StorageLock();

private:
    explicit StorageLock(int fd) : fd_(fd) {}
    int fd_ = -1;
};
