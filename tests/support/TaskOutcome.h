#pragma once

#include <QCoroTask>

#include <exception>
#include <optional>

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

template <typename T>
QCoro::Task<void> settleInto(QCoro::Task<T> task, std::optional<T>* value) {
    value->emplace(co_await std::move(task));
}

// Drives a task with a result to its end and returns the result, or rethrows what it threw.
template <typename T>
T awaitResult(QCoro::Task<T> task) {
    std::optional<T> value;
    if (const std::exception_ptr error = waitForOutcome(settleInto(std::move(task), &value)))
        std::rethrow_exception(error);
    return std::move(*value);
}
