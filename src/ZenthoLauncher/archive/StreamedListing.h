#pragma once

#include <BodySink.h>

#include <QString>

#include <QCoroTask>

#include <memory>

class InflatedTarRun;

// Lists an archive while its body arrives: every byte the digest sees is inflated and fed to
// `tar -tf -`, so the listing is ready about when the digest is, instead of costing a second full
// pass through gzip afterwards.
class StreamedListing : public BodySink {
public:
    StreamedListing();
    ~StreamedListing() override;
    StreamedListing(const StreamedListing&) = delete;
    StreamedListing& operator=(const StreamedListing&) = delete;

    void restart() override;
    void append(const char* bytes, std::size_t size) override;

    // The listing of the complete archive at `archive`, whose body this sink saw from its first
    // byte: what `runTar(listArguments(archive))` returns, with the same LauncherError when tar
    // fails. Whenever the streamed run cannot vouch for its result (the archive is not one plain
    // gzip member, tar failed, tar could not be started), that literal run is what answers.
    QCoro::Task<QString> listingOf(QString archive);

private:
    std::unique_ptr<InflatedTarRun> run_;
};
