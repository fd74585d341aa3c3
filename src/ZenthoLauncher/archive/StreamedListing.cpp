#include "archive/StreamedListing.h"

#include "archive/Archive.h"
#include "process/ProcessTask.h"

#include <InflatedTarRun.h>

#include <QFile>

namespace {

std::unique_ptr<InflatedTarRun> startListing() {
    try {
        return startInflatedTar(streamedListArguments());
    } catch (const std::exception&) {
        // Not worth failing for: the literal run at the end meets the same problem and reports it.
        return nullptr;
    }
}

} // namespace

StreamedListing::StreamedListing() : run_(startListing()) {}

StreamedListing::~StreamedListing() = default;

void StreamedListing::restart() {
    run_.reset(); // ends the tar run of the bytes that no longer count before starting afresh
    run_ = startListing();
}

void StreamedListing::append(const char* bytes, std::size_t size) {
    if (run_)
        run_->append(bytes, size);
}

QCoro::Task<QString> StreamedListing::listingOf(QString archive) {
    if (run_) {
        run_->finishFrom(QFile::encodeName(archive).toStdString());
        const InflatedTarRun::Outcome outcome = co_await outcomeWithoutBlocking(*run_);
        run_.reset();
        if (outcome.clean)
            co_return QString::fromStdString(outcome.tar.output);
    }
    co_return co_await runTarWithoutBlocking(listArguments(archive));
}
