#include "model/DownloadMeter.h"

#include "net/TransferText.h"

#include <cmath>

namespace {

std::chrono::milliseconds steadyNow() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now().time_since_epoch());
}

} // namespace

DownloadMeter::DownloadMeter(Show show, Clock clock)
    : show_(std::move(show)), clock_(clock ? std::move(clock) : Clock(steadyNow)) {}

void DownloadMeter::progressed(qint64 done, std::optional<qint64> total) {
    const std::chrono::milliseconds now = clock_();
    // A download that starts over from zero has a new speed too.
    if (!samples_.empty() && done < samples_.back().done) {
        samples_.clear();
        started_.reset();
    }
    if (!started_)
        started_ = now;
    samples_.push_back({now, done});
    // Keep one sample at or before the window's start, so the average spans the whole window.
    while (samples_.size() > 2 && samples_[1].at <= now - window)
        samples_.pop_front();

    const bool whole = total && done >= *total;
    if (shownAt_ && now - *shownAt_ < refresh && !whole)
        return;
    shownAt_ = now;

    const std::optional<double> speed = bytesPerSecond(now);
    std::optional<std::chrono::seconds> left;
    if (total && speed && *speed > 0 && now - *started_ >= settled)
        left = std::chrono::seconds(qint64(std::ceil(double(*total - done) / *speed)));
    const double fraction =
        total && *total > 0 ? std::min(1.0, double(done) / double(*total)) : 0.0;
    show_(fraction, TransferText::caption(done, total, speed, left));
}

void DownloadMeter::ended() {
    samples_.clear();
    started_.reset();
    shownAt_.reset();
    show_(-1, QString());
}

std::optional<double> DownloadMeter::bytesPerSecond(std::chrono::milliseconds now) const {
    if (!started_ || now - *started_ < firstSpeed || samples_.size() < 2)
        return std::nullopt;
    const Sample& first = samples_.front();
    const double seconds = double((now - first.at).count()) / 1000.0;
    if (seconds <= 0)
        return std::nullopt;
    return double(samples_.back().done - first.done) / seconds;
}
