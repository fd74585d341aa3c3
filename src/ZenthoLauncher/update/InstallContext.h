#pragma once

#include <QString>

#include <functional>

class DownloadObserver;
class FileManager;
class HttpClient;

// What an install is handed by whoever starts it: the services it works with, where it works and
// who follows it. The model chooses the shared ones; a test passes its own.
struct InstallContext {
    const FileManager& files;
    HttpClient& http;
    // The storage folder: its lock, the staging folders, the downloads and the caches.
    QString launcherRoot;
    // Shows one of the install's progress statuses; never an error.
    std::function<void(const QString&)> reportStatus;
    DownloadObserver* downloadObserver = nullptr;
};
