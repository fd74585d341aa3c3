#pragma once

#include <QObject>
#include <QThread>

#include <QCoroTask>
#include <QCoroSignal>

#include <exception>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

// Tells the main thread that a worker is done. The news arrives through the main thread's event
// loop, so the wait for it, set up before that loop runs again, cannot miss it; a wait for
// QThread::finished, emitted on the worker's own thread, can, when the thread ends between the
// look at whether it has and the wait.
class WorkerDone : public QObject {
    Q_OBJECT
public:
    void post() {
        QMetaObject::invokeMethod(this, [this] { emit ended(); }, Qt::QueuedConnection);
    }
signals:
    void ended();
};

// Runs `work` on a thread of its own and suspends the calling coroutine until it is done, so that
// reading or writing a whole build keeps the window drawing. Whatever `work` throws is thrown
// here. `work` must not touch anything of the main thread's. Should the coroutine be destroyed
// first (the application goes away), its frame waits for the thread before it goes.
template <typename Work>
QCoro::Task<std::invoke_result_t<Work>> onWorkerThread(Work work) {
    using Result = std::invoke_result_t<Work>;
    std::conditional_t<std::is_void_v<Result>, bool, std::optional<Result>> result{};
    std::exception_ptr failure;
    WorkerDone done;
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
        done.post();
    };
    const auto joined = [](QThread* running) {
        running->wait();
        delete running;
    };
    const std::unique_ptr<QThread, decltype(joined)> owner(QThread::create(body), joined);
    owner->start();
    co_await qCoro(&done, &WorkerDone::ended);
    owner->wait();
    if (failure)
        std::rethrow_exception(failure);
    if constexpr (!std::is_void_v<Result>)
        co_return std::move(*result);
}
