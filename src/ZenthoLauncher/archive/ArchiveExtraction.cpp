#include "archive/ArchiveExtraction.h"

#include "archive/Archive.h"
#include "platform/FileManager.h"
#include "process/ProcessTask.h"

#include <InflatedTarRun.h>

#include <QFile>

QCoro::Task<void> extractArchive(const FileManager& files, QString archive, QString folder) {
    std::unique_ptr<InflatedTarRun> run;
    try {
        run = startInflatedTar(streamedExtractArguments(folder));
    } catch (const std::exception&) {
        // The literal run below meets the same problem and reports it as it should.
    }
    if (run) {
        run->finishFrom(QFile::encodeName(archive).toStdString());
        const InflatedTarRun::Outcome outcome = co_await outcomeWithoutBlocking(*run);
        if (outcome.clean)
            co_return;
        // Whatever the fast run left goes, so the literal run starts from the same empty folder.
        files.removeItem(folder);
        files.createDirectory(folder);
    }
    co_await runTarWithoutBlocking(extractArguments(archive, folder));
}
