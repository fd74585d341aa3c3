#pragma once

#include <InflatedTarRun.h>
#include <ProcessCapture.h>

#include <QCoroTask>

#include <string>
#include <vector>

// ProcessCapture::run for the main thread's coroutines: the coroutine suspends while the child
// runs, so the window keeps drawing and answering during a long tar or seal check, while the
// steps around the child still happen in their order. The child's end is noticed through a
// process descriptor (or, on a kernel without them, by looking every few milliseconds). Errors
// are those of ProcessCapture::run; if the coroutine's frame is destroyed before the child ends
// (the application goes away mid-run), the child is killed.
QCoro::Task<CapturedProcessResult> runWithoutBlocking(std::string executable,
                                                      std::vector<std::string> arguments);

// The outcome of `run` once it has ended; the coroutine suspends until then.
QCoro::Task<InflatedTarRun::Outcome> outcomeWithoutBlocking(InflatedTarRun& run);
