#include "net/ResumableDownload.h"

#include "errors/Failure.h"
#include "errors/FileError.h"
#include "net/ByteRanges.h"
#include "net/FreeSpace.h"
#include "net/HttpClient.h"
#include "platform/FileManager.h"
#include "trust/Sha256.h"

#include <BodySink.h>

#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>

#include <cerrno>
#include <memory>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace {

constexpr qint64 readBackChunk = 1024 * 1024;

// What If-Range may carry: a strong entity tag, else the modification date. A weak tag never
// matches a range, so it is as good as none.
std::optional<QByteArray> validatorOf(const ResponseHead& head) {
    if (!head.etag.isEmpty() && !head.etag.startsWith("W/"))
        return head.etag;
    if (!head.lastModified.isEmpty())
        return head.lastModified;
    return std::nullopt;
}

using ByteRanges::ContentRange;
using ByteRanges::parseContentRange;

// The archive's file and everything an attempt knows about it. As the receiver of each try's
// body it decides whether that body continues the file, starts it over or is not kept at all.
class ArchiveFile : public BodyReceiver {
public:
    ArchiveFile(const FileManager& fileManager, DownloadsFolder::Partial files, QUrl url,
                const ResumableDownload::Options& options, qint64 reserve)
        : fileManager_(fileManager), files_(std::move(files)), url_(std::move(url)), options_(options),
          reserve_(reserve) {
        fd_ = ::open(QFile::encodeName(files_.archive).constData(), O_RDWR | O_CREAT | O_CLOEXEC,
                     0600);
        if (fd_ < 0)
            throwFileError(QStringLiteral("could not open ") + files_.archive);
    }
    ~ArchiveFile() override { ::close(fd_); }
    ArchiveFile(const ArchiveFile&) = delete;
    ArchiveFile& operator=(const ArchiveFile&) = delete;

    // Feeds what an earlier attempt kept to the digest and the sink, when the validator it was
    // kept under belongs to this address; anything else is dropped.
    void readBack() {
        validator_ = readValidator();
        struct stat st {};
        if (::fstat(fd_, &st) != 0)
            throwFileError(QStringLiteral("could not read ") + files_.archive);
        if (!validator_ || st.st_size == 0) {
            truncate();
            return;
        }
        std::unique_ptr<char[]> buffer(new char[readBackChunk]);
        while (size_ < st.st_size) {
            const ssize_t got = ::pread(fd_, buffer.get(), std::size_t(readBackChunk), size_);
            if (got < 0 && errno == EINTR)
                continue;
            if (got < 0)
                throwFileError(QStringLiteral("could not read ") + files_.archive);
            if (got == 0)
                break;
            take(buffer.get(), got);
        }
        report();
    }

    // The next request's headers: the rest of the file, unless it is not there to continue.
    RequestHeaders nextRequest() {
        taking_ = false;
        startsOver_ = false;
        stoppedHere_ = false;
        added_ = 0;
        rangeFrom_ = validator_ && size_ > 0 ? size_ : 0;
        if (rangeFrom_ == 0)
            return {};
        return {{"Range", "bytes=" + QByteArray::number(rangeFrom_) + '-'},
                {"If-Range", *validator_}};
    }

    Verdict accept(const ResponseHead& head) override {
        const std::optional<int> status = head.statusCode;
        std::optional<qint64> rest;
        if (status == 206 && rangeFrom_ > 0) {
            const std::optional<ContentRange> range = parseContentRange(head.contentRange);
            if (!continuesKeptBytes(range))
                return startOverNext();
            total_ = range->total;
            rest = range->range.size();
        } else if (status == 416 && rangeFrom_ > 0) {
            return startOverNext();
        } else if (status == 200) {
            total_ = head.contentLength;
            rest = head.contentLength;
        } else {
            return Verdict::decline(); // an answer whose body is not the archive
        }
        try {
            if (rest)
                requireRoom(*rest);
            if (status == 200)
                startFromZero(validatorOf(head));
        } catch (...) {
            stoppedHere_ = true;
            return Verdict::fail(std::current_exception());
        }
        taking_ = true;
        report();
        return Verdict::take();
    }

    // Only the rest of the file the kept bytes came from continues them. A range that starts
    // elsewhere, ends past its own total, or belongs to a file of another length than the one
    // kept is another file under the same validator: splicing it on, or asking on from it, would
    // build a wrong archive or ask past the end.
    bool continuesKeptBytes(const std::optional<ContentRange>& range) const {
        if (!range || range->range.first != size_)
            return false;
        return !(range->total && keptTotal_ && *range->total != *keptTotal_);
    }

    std::exception_ptr write(const char* bytes, qint64 size) override {
        if (!taking_)
            return {};
        try {
            struct statvfs fs {};
            if (::fstatvfs(fd_, &fs) == 0 &&
                qint64(fs.f_bavail) * qint64(fs.f_frsize) - size < reserve_) {
                reserveReached_ = true;
                throw DiskSpaceError(
                    QStringLiteral("Not enough free disk space for the download."));
            }
            for (qint64 done = 0; done < size;) {
                const ssize_t written =
                    ::pwrite(fd_, bytes + done, std::size_t(size - done), size_ + done);
                if (written < 0 && errno == EINTR)
                    continue;
                if (written < 0)
                    throwFileError(QStringLiteral("could not write ") + files_.archive);
                done += written;
            }
        } catch (...) {
            stoppedHere_ = true;
            return std::current_exception();
        }
        take(bytes, size);
        added_ += size;
        report();
        return {};
    }

    // True when the last answer did not continue the file: the file has been emptied, and the
    // next request is a plain one for the whole archive.
    bool startsOver() const { return startsOver_; }

    bool tookBody() const { return taking_; }
    bool isWhole() const { return taking_ && (!total_ || size_ == *total_); }
    // A try that was cut short may be followed by another for the rest.
    bool mayResumeAfterThisTry() const {
        return taking_ && validator_ && !stoppedHere_ && added_ > 0 && (!total_ || size_ < *total_);
    }

    // The whole file's digest; from now on the file is only an archive, no longer a download that
    // could go on, so its validator goes.
    QString finish() {
        QFile::remove(files_.validator);
        return hash_->finishHex();
    }

    // Leaves what can be resumed next time and removes what cannot.
    void abandon() {
        if (reserveReached_ || !validator_ || size_ == 0) {
            QFile::remove(files_.archive);
            QFile::remove(files_.validator);
        }
    }

private:
    // Declines an answer that does not continue the file and empties it for a plain request.
    Verdict startOverNext() {
        try {
            startFromZero(std::nullopt);
        } catch (...) {
            stoppedHere_ = true;
            return Verdict::fail(std::current_exception());
        }
        startsOver_ = true;
        return Verdict::decline();
    }

    void take(const char* bytes, qint64 size) {
        hash_->update(bytes, std::size_t(size));
        if (options_.sink)
            options_.sink->append(bytes, std::size_t(size));
        size_ += size;
        fed_ = true;
    }

    void report() const {
        if (options_.observer)
            options_.observer->progressed(size_, total_);
    }

    // Room for `rest` more bytes of archive in the downloads folder and for unpacking the whole
    // archive: an unpacked build is at least about as large as its compressed archive.
    void requireRoom(qint64 rest) const {
        const qint64 whole = total_.value_or(size_ + rest);
        FreeSpace::require(
            {{options_.unpackFolder, whole}, {QFileInfo(files_.archive).absolutePath(), rest}},
            reserve_);
    }

    void startFromZero(std::optional<QByteArray> validator) {
        truncate();
        hash_ = std::make_unique<Sha256>();
        if (fed_ && options_.sink)
            options_.sink->restart();
        validator_ = std::move(validator);
        if (validator_)
            writeValidator();
        else
            QFile::remove(files_.validator);
    }

    void truncate() {
        if (::ftruncate(fd_, 0) != 0)
            throwFileError(QStringLiteral("could not empty ") + files_.archive);
        size_ = 0;
    }

    std::optional<QByteArray> readValidator() {
        QFile file(files_.validator);
        if (!file.open(QIODevice::ReadOnly) || file.size() > 64 * 1024)
            return std::nullopt;
        const QJsonObject record = QJsonDocument::fromJson(file.readAll()).object();
        const QByteArray validator =
            record.value(QStringLiteral("validator")).toString().toLatin1();
        if (record.value(QStringLiteral("url")).toString() != url_.toString(QUrl::FullyEncoded) ||
            validator.isEmpty())
            return std::nullopt;
        if (const QJsonValue size = record.value(QStringLiteral("size")); size.isDouble() && size.toDouble() >= 0)
            keptTotal_ = qint64(size.toDouble());
        return validator;
    }

    void writeValidator() const {
        QJsonObject record{{QStringLiteral("url"), url_.toString(QUrl::FullyEncoded)},
                           {QStringLiteral("validator"), QString::fromLatin1(*validator_)}};
        if (total_)
            record.insert(QStringLiteral("size"), double(*total_));
        fileManager_.writeAtomically(
            files_.validator, QJsonDocument(record).toJson(QJsonDocument::Compact));
    }

    const FileManager& fileManager_;
    DownloadsFolder::Partial files_;
    QUrl url_;
    const ResumableDownload::Options& options_;
    qint64 reserve_;
    int fd_ = -1;
    std::unique_ptr<Sha256> hash_ = std::make_unique<Sha256>();
    bool fed_ = false;
    qint64 size_ = 0;
    std::optional<qint64> total_;
    std::optional<qint64> keptTotal_; // the whole archive's size when the kept bytes came
    std::optional<QByteArray> validator_;
    // The try that runs now.
    qint64 rangeFrom_ = 0;
    bool taking_ = false;
    bool startsOver_ = false;
    bool stoppedHere_ = false; // the body was refused or could not be written: not the network
    bool reserveReached_ = false;
    qint64 added_ = 0;
};

} // namespace

QCoro::Task<DownloadResult> ResumableDownload::run(HttpClient& client, const FileManager& files,
                                                   QUrl url, DownloadsFolder::Partial partial,
                                                   Options options) {
    // However it ends, the download is over for whoever follows it.
    struct EndReport {
        DownloadObserver* observer;
        ~EndReport() {
            if (observer)
                observer->ended();
        }
    } endReport{options.observer};
    ArchiveFile file(files, std::move(partial), url, options, client.limits().freeSpaceReserve);
    file.readBack();
    int resumes = 0;
    for (;;) {
        std::exception_ptr failure;
        ResponseHead head;
        try {
            const RequestHeaders headers = file.nextRequest();
            head = co_await client.stream(url, headers, file);
        } catch (...) {
            failure = std::current_exception();
        }
        // The next request is a plain one, so this happens once at most.
        if (!failure && file.startsOver())
            continue;
        if (!failure && !file.tookBody()) {
            file.abandon();
            co_return DownloadResult{head.statusCode, {}};
        }
        if (!failure && file.isWhole())
            co_return DownloadResult{200, file.finish()};
        if (file.mayResumeAfterThisTry() && resumes < options.maximumResumes) {
            ++resumes;
            continue;
        }
        file.abandon();
        if (failure)
            std::rethrow_exception(failure);
        throw NetworkError(QStringLiteral("The server sent less than the whole archive."));
    }
}
