#pragma once

#include <QThread>

#include <QCoroTask>
#include <QCoroThread>

#include <exception>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

// Runs `work` on a thread of its own and suspends the calling coroutine until it is done, so that
// reading or writing a whole build keeps the window drawing. Whatever `work` throws is thrown
// here. `work` must not touch anything of the main thread's. Should the coroutine be destroyed
// first (the application goes away), its frame waits for the thread before it goes.
template <typename Work>
QCoro::Task<std::invoke_result_t<Work>> onWorkerThread(Work work) {
    using Result = std::invoke_result_t<Work>;
    std::conditional_t<std::is_void_v<Result>, bool, std::optional<Result>> result{};
    std::exception_ptr failure;
    const auto body = [&] {
        try {
            if constexpr (std::is_void_v<Result>) {
                work();
                result = true;
            } else {
                result.emplace(work());
            }
        } catch (...) {
            failure = std::current_exception();
        }
    };
    const auto joined = [](QThread* running) {
        running->wait();
        delete running;
    };
    const std::unique_ptr<QThread, decltype(joined)> owner(QThread::create(body), joined);
    owner->start();
    co_await qCoro(owner.get()).waitForFinished();
    if (failure)
        std::rethrow_exception(failure);
    if constexpr (!std::is_void_v<Result>)
        co_return std::move(*result);
}
