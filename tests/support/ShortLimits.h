#pragma once

#include "net/TransferLimits.h"

#include <functional>

// Transfer limits for testing one of the watchdog's limits: those `shorten` sets are reached in a
// moment, every other one only after an hour, so the error that ends a transfer names the limit
// it met however slowly the machine runs.
TransferLimits onlyShort(const std::function<void(TransferWatchdog::Limits&)>& shorten);
