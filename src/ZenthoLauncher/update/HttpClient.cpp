#include "update/HttpClient.h"

#include "errors/FileError.h"
#include "platform/FileManager.h"
#include "update/BodySink.h"
#include "update/Sha256.h"
#include "update/TransferWatchdog.h"
#include "update/UnreachableHosts.h"

#include "Uuid.h"

#include <QFile>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>

#include <QCoroNetworkReply>

#include <cerrno>
#include <memory>
#include <utility>

#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace {

// Qt keeps at most this much of a body waiting to be read; the download drains it to disk and
// the manifest fetch into its capped buffer as it arrives, so memory stays flat whatever the
// server sends.
constexpr qint64 readBufferSize = 256 * 1024;
constexpr int maximumRedirects = 10;

QNetworkAccessManager& manager() {
    // Deliberately never destroyed: a coroutine may still be awaiting one of its replies when
    // the process ends, and destroying the manager under it crashes.
    static QNetworkAccessManager* const shared = new QNetworkAccessManager();
    return *shared;
}

QNetworkRequest requestFor(const QUrl& url) {
    QNetworkRequest request(url);
    // https -> https is followed, http -> http too; a step down from https to http is refused
    // and surfaces as a transport error.
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                         QNetworkRequest::NoLessSafeRedirectPolicy);
    request.setMaximumRedirectsAllowed(maximumRedirects);
    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute,
                         QNetworkRequest::AlwaysNetwork);
    return request;
}

struct ReplyDeleter {
    void operator()(QNetworkReply* reply) const { reply->deleteLater(); }
};
using ReplyPtr = std::unique_ptr<QNetworkReply, ReplyDeleter>;

std::optional<int> statusCodeOf(const QNetworkReply& reply) {
    // Only an HTTP answer has a status; Qt reports a made-up 200 for some local files.
    const QString scheme = reply.url().scheme();
    if (scheme != QLatin1String("http") && scheme != QLatin1String("https"))
        return std::nullopt;
    const QVariant status = reply.attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (!status.isValid())
        return std::nullopt;
    return status.toInt();
}

QString sizeText(qint64 bytes) {
    if (bytes % (1024 * 1024) == 0)
        return QStringLiteral("%1 MiB").arg(bytes / (1024 * 1024));
    if (bytes % 1024 == 0)
        return QStringLiteral("%1 KiB").arg(bytes / 1024);
    return QStringLiteral("%1 bytes").arg(bytes);
}

// The body size the answer announces, when it announces one.
std::optional<qint64> announcedLength(const QNetworkReply& reply) {
    const QVariant length = reply.header(QNetworkRequest::ContentLengthHeader);
    if (!length.isValid())
        return std::nullopt;
    return length.toLongLong();
}

QString notEnoughSpace() {
    return QStringLiteral("Not enough free disk space for the download.");
}

// Qt reports an HTTP error status (404, 500...) as a reply error too. Those are answers, not
// transport failures: the caller judges the status. Anything below the content layer (network,
// TLS, proxy, redirects, a broken body) or any error without an HTTP answer is a transport
// failure. A 407 is the one status Qt files under proxy errors; no proxy is ever used, so it can
// only be the origin server's answer.
void throwIfTransportFailed(const QNetworkReply& reply, const TransferWatchdog& watchdog) {
    if (watchdog.abortReason())
        throw NetworkError(*watchdog.abortReason());
    const QNetworkReply::NetworkError error = reply.error();
    if (error == QNetworkReply::NoError)
        return;
    if (error == QNetworkReply::ProxyAuthenticationRequiredError && statusCodeOf(reply) == 407)
        return;
    const bool belowContent = error < QNetworkReply::ContentAccessDenied;
    if (!statusCodeOf(reply) || belowContent || error == QNetworkReply::ProtocolFailure)
        throw NetworkError(reply.errorString());
}

// The download's temporary file, opened exclusively under a fresh name and removed again unless
// it is handed on with keep(). Written with plain POSIX calls so a failure carries the system's
// reason.
class TemporaryFileWriter {
public:
    TemporaryFileWriter()
        : path_(FileManager::defaultManager().temporaryDirectory() + QStringLiteral("/zentho-download-") +
                QString::fromStdString(makeUpperUuid())) {
        fd_ = ::open(QFile::encodeName(path_).constData(),
                     O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (fd_ < 0)
            throwFileError(QStringLiteral("could not create ") + path_);
    }
    ~TemporaryFileWriter() {
        if (fd_ >= 0)
            ::close(fd_);
        if (!kept_)
            QFile::remove(path_);
    }
    TemporaryFileWriter(const TemporaryFileWriter&) = delete;
    TemporaryFileWriter& operator=(const TemporaryFileWriter&) = delete;

    const QString& path() const { return path_; }
    qint64 written() const { return written_; }

    // What its file system still has free for an unprivileged writer; -1 when unknown.
    qint64 freeBytes() const {
        struct statvfs fs {};
        if (::fstatvfs(fd_, &fs) != 0)
            return -1;
        return qint64(fs.f_bavail) * qint64(fs.f_frsize);
    }

    // Returns 0 on success, else the errno of the failed write.
    int write(const char* bytes, qint64 size) {
        while (size > 0) {
            const ssize_t written = ::write(fd_, bytes, std::size_t(size));
            if (written < 0) {
                if (errno == EINTR)
                    continue;
                return errno;
            }
            bytes += written;
            size -= written;
            written_ += written;
        }
        return 0;
    }

    // Closes the file and leaves it on disk for its new owner.
    void keep() {
        const int fd = std::exchange(fd_, -1);
        if (::close(fd) != 0)
            throwFileError(QStringLiteral("could not write ") + path_);
        kept_ = true;
    }

private:
    QString path_;
    int fd_ = -1;
    qint64 written_ = 0;
    bool kept_ = false;
};

// Where a download stands against the limits on its body: the file system's errno when a write
// failed, or the reason the body must not go on.
struct DrainOutcome {
    int writeError = 0;
    std::optional<QString> refusal;
};

// Moves whatever the reply holds right now to the file and the digest, as long as the body stays
// within what it announced and leaves `reserve` free on the file's file system.
DrainOutcome drain(QNetworkReply& reply, TemporaryFileWriter& file, Sha256& hash, BodySink* sink,
                   qint64 reserve) {
    char buffer[64 * 1024];
    const std::optional<qint64> announced = announcedLength(reply);
    while (reply.isOpen()) { // an aborted reply is closed and has nothing more to give
        const qint64 got = reply.read(buffer, qint64(sizeof buffer));
        if (got <= 0)
            return {};
        if (announced && file.written() + got > *announced)
            return {0, QStringLiteral("The server sent more than it announced.")};
        const qint64 free = file.freeBytes();
        if (free >= 0 && free - got < reserve)
            return {0, notEnoughSpace()};
        if (const int err = file.write(buffer, got))
            return {err, std::nullopt};
        hash.update(buffer, std::size_t(got));
        if (sink)
            sink->append(buffer, std::size_t(got));
    }
    return {};
}

// Moves whatever the reply holds right now into `body`; false, with `body` left as it was, when
// that would make it larger than `cap`.
bool collect(QNetworkReply& reply, QByteArray& body, qint64 cap) {
    if (const std::optional<qint64> announced = announcedLength(reply); announced && *announced > cap)
        return false;
    while (reply.isOpen()) {
        const qint64 available = reply.bytesAvailable();
        if (available <= 0)
            return true;
        if (body.size() + available > cap)
            return false;
        body += reply.read(available);
    }
    return true;
}

} // namespace

DownloadedFile::DownloadedFile(std::optional<int> statusCode, QString path, QString sha256Hex)
    : statusCode_(statusCode), path_(std::move(path)), sha256Hex_(std::move(sha256Hex)) {}

DownloadedFile::DownloadedFile(DownloadedFile&& other) noexcept
    : statusCode_(other.statusCode_),
      path_(std::exchange(other.path_, QString())),
      sha256Hex_(std::move(other.sha256Hex_)) {}

DownloadedFile& DownloadedFile::operator=(DownloadedFile&& other) noexcept {
    if (this != &other) {
        if (!path_.isEmpty())
            QFile::remove(path_);
        statusCode_ = other.statusCode_;
        path_ = std::exchange(other.path_, QString());
        sha256Hex_ = std::move(other.sha256Hex_);
    }
    return *this;
}

DownloadedFile::~DownloadedFile() {
    if (!path_.isEmpty())
        QFile::remove(path_);
}

HttpClient& HttpClient::shared() {
    static HttpClient client;
    return client;
}

QCoro::Task<HttpResponse> HttpClient::data(QUrl url) {
    const qint64 cap = limits_.maximumManifestBytes;
    const QString tooLarge = QStringLiteral("The manifest is larger than %1.").arg(sizeText(cap));
    QByteArray body;

    UnreachableHosts::refuseKnown(url);
    ReplyPtr reply(manager().get(requestFor(url)));
    reply->setReadBufferSize(readBufferSize);
    auto* const watchdog = new TransferWatchdog(reply.get(), limits_.manifest);
    QNetworkReply* const raw = reply.get();
    const auto take = [&, raw] {
        if (!collect(*raw, body, cap))
            watchdog->giveUp(tooLarge); // resumes the coroutine; nothing may follow this call
    };
    const QMetaObject::Connection announced =
        QObject::connect(raw, &QNetworkReply::metaDataChanged, raw, take);
    const QMetaObject::Connection streaming =
        QObject::connect(raw, &QNetworkReply::readyRead, raw, take);
    co_await raw;
    QObject::disconnect(announced);
    QObject::disconnect(streaming);
    if (!watchdog->abortReason() && !collect(*raw, body, cap))
        throw NetworkError(tooLarge);
    UnreachableHosts::noteFailure(*raw, *watchdog);
    throwIfTransportFailed(*raw, *watchdog);
    co_return HttpResponse{statusCodeOf(*raw), std::move(body)};
}

QCoro::Task<DownloadedFile> HttpClient::download(QUrl url, BodySink* sink) {
    UnreachableHosts::refuseKnown(url);
    TemporaryFileWriter file;
    Sha256 hash;
    DrainOutcome outcome;
    const qint64 reserve = limits_.freeSpaceReserve;

    ReplyPtr reply(manager().get(requestFor(url)));
    reply->setReadBufferSize(readBufferSize);
    auto* const watchdog = new TransferWatchdog(reply.get(), limits_.download);
    QNetworkReply* const raw = reply.get();
    // A body that announces more than the disk can spare is refused before a byte of it lands.
    const QMetaObject::Connection announced =
        QObject::connect(raw, &QNetworkReply::metaDataChanged, raw, [&, raw] {
            const std::optional<qint64> length = announcedLength(*raw);
            const qint64 free = file.freeBytes();
            if (length && free >= 0 && free - *length < reserve)
                watchdog->giveUp(notEnoughSpace()); // resumes the coroutine; nothing may follow
        });
    const QMetaObject::Connection streaming =
        QObject::connect(raw, &QNetworkReply::readyRead, raw, [&, raw] {
            if (outcome.writeError != 0 || outcome.refusal)
                return;
            outcome = drain(*raw, file, hash, sink, reserve);
            if (outcome.refusal)
                watchdog->giveUp(*outcome.refusal); // resumes the coroutine; nothing may follow
            else if (outcome.writeError != 0)
                raw->abort(); // resumes the coroutine; nothing may follow this call
        });
    co_await raw;
    QObject::disconnect(announced);
    QObject::disconnect(streaming);
    if (outcome.writeError == 0 && !outcome.refusal)
        outcome = drain(*raw, file, hash, sink, reserve);
    if (outcome.writeError != 0)
        throwFileError(QStringLiteral("could not write ") + file.path(), outcome.writeError);
    if (outcome.refusal)
        throw NetworkError(*outcome.refusal);
    UnreachableHosts::noteFailure(*raw, *watchdog);
    throwIfTransportFailed(*raw, *watchdog);
    file.keep();
    co_return DownloadedFile(statusCodeOf(*raw), file.path(), hash.finishHex());
}
