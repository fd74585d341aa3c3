#pragma once

#include <QCoroTask>

#include <exception>

// Drives a task to its end in a nested event loop and hands back what it threw (null when it
// finished normally). QCoro::waitFor alone never returns when the task throws.
inline QCoro::Task<void> catchingTask(QCoro::Task<void> task, std::exception_ptr* error) {
    try {
        co_await std::move(task);
    } catch (...) {
        *error = std::current_exception();
    }
}

inline std::exception_ptr waitForOutcome(QCoro::Task<void> task) {
    std::exception_ptr error;
    QCoro::waitFor(catchingTask(std::move(task), &error));
    return error;
}
