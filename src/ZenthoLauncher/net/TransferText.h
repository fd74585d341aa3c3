#pragma once

#include <QString>
#include <QtGlobal>

#include <chrono>
#include <optional>

// How the launcher writes sizes, speeds and times of a transfer for a person: decimal units as a
// file manager shows them ("310 MB", "1.2 GB", "45 MB/s"), three significant figures at most.
namespace TransferText {

// "0 bytes", "1 byte", "999 bytes", "1.0 kB", "148 MB", "1.2 GB".
QString size(qint64 bytes);
// size() per second: "45 MB/s".
QString speed(double bytesPerSecond);
// "about 25 s left", "about 3 min left", "about 1 h 5 min left".
QString timeLeft(std::chrono::seconds left);

// The one-line caption of a running download: "148 MB of 1.2 GB · 45 MB/s · about 25 s left".
// Without a known total: "148 MB · 45 MB/s". Speed and time left are shown only when given.
QString caption(qint64 done, std::optional<qint64> total, std::optional<double> bytesPerSecond,
                std::optional<std::chrono::seconds> left);

} // namespace TransferText
