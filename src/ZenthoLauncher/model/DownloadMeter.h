#pragma once

#include "net/ResumableDownload.h"

#include <QString>

#include <chrono>
#include <deque>
#include <functional>
#include <optional>

// Turns a running download's progress into what the player sees: the fraction done (-1 when no
// download runs) and the caption "148 MB of 1.2 GB · 45 MB/s · about 25 s left" (empty when none
// runs). Speed is averaged over the last few seconds, so a burst or a pause does not make the
// figures jump; it is shown once a second of the download has gone by, and the time left once the
// speed has had a few seconds to settle. A resumed download's fraction starts at what was kept.
class DownloadMeter : public DownloadObserver {
public:
    using Clock = std::function<std::chrono::milliseconds()>;
    using Show = std::function<void(double fraction, const QString& caption)>;

    // The time over which speed is averaged.
    static constexpr std::chrono::milliseconds window{5000};
    // Speed is shown after this much of the download, time left after `settled`.
    static constexpr std::chrono::milliseconds firstSpeed{1000};
    static constexpr std::chrono::milliseconds settled{2000};
    // What is shown changes at most this often, however fast the bytes come.
    static constexpr std::chrono::milliseconds refresh{200};

    // `clock` is a monotonic clock; the steady clock when none is given.
    explicit DownloadMeter(Show show, Clock clock = {});

    void progressed(qint64 done, std::optional<qint64> total) override;
    void ended() override;

private:
    struct Sample {
        std::chrono::milliseconds at;
        qint64 done;
    };
    std::optional<double> bytesPerSecond(std::chrono::milliseconds now) const;

    Show show_;
    Clock clock_;
    std::deque<Sample> samples_;
    std::optional<std::chrono::milliseconds> started_;
    std::optional<std::chrono::milliseconds> shownAt_;
};
