#pragma once

// This process's resident memory as the kernel reports it, for benchmarks that show what a
// transfer or an install costs in memory.
namespace ResidentMemory {

// Current resident size (VmRSS), in KiB; -1 when it cannot be read.
long currentKiB();
// Peak resident size (VmHWM) since start or since the last resetPeak(), in KiB; -1 when it cannot
// be read.
long peakKiB();
// Makes the peak start again from the current resident size.
void resetPeak();

} // namespace ResidentMemory
