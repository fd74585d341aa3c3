#include "ShortLimits.h"

TransferLimits onlyShort(const std::function<void(TransferWatchdog::Limits&)>& shorten) {
    using namespace std::chrono_literals;
    TransferWatchdog::Limits watchdog;
    watchdog.connect = watchdog.inactivity = watchdog.window = watchdog.deadline = 1h;
    shorten(watchdog);
    TransferLimits limits;
    limits.download = limits.manifest = watchdog;
    return limits;
}
