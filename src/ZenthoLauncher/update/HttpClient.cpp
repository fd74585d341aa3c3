#include "update/HttpClient.h"

#include "platform/FileError.h"
#include "platform/FileManager.h"
#include "update/Sha256.h"
#include "update/TransferWatchdog.h"

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
#include <unistd.h>

namespace {

// Qt keeps at most this much of a body waiting to be read; the download drains it to disk as
// it arrives, so memory stays flat whatever the archive's size.
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

// Qt reports an HTTP error status (404, 500...) as a reply error too. Those are answers, not
// transport failures: the caller judges the status. Anything below the content layer (network,
// TLS, proxy, redirects, a broken body) or any error without an HTTP answer is a transport
// failure.
void throwIfTransportFailed(const QNetworkReply& reply, const TransferWatchdog& watchdog) {
    if (watchdog.abortReason())
        throw NetworkError(*watchdog.abortReason());
    const QNetworkReply::NetworkError error = reply.error();
    if (error == QNetworkReply::NoError)
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
    bool kept_ = false;
};

// Moves whatever the reply holds right now to the file and the digest.
int drain(QNetworkReply& reply, TemporaryFileWriter& file, Sha256& hash) {
    char buffer[64 * 1024];
    while (reply.isOpen()) { // an aborted reply is closed and has nothing more to give
        const qint64 got = reply.read(buffer, qint64(sizeof buffer));
        if (got <= 0)
            return 0;
        if (const int err = file.write(buffer, got))
            return err;
        hash.update(buffer, std::size_t(got));
    }
    return 0;
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
    ReplyPtr reply(manager().get(requestFor(url)));
    const auto* watchdog = new TransferWatchdog(reply.get());
    co_await reply.get();
    throwIfTransportFailed(*reply, *watchdog);
    co_return HttpResponse{statusCodeOf(*reply), reply->readAll()};
}

QCoro::Task<DownloadedFile> HttpClient::download(QUrl url) {
    TemporaryFileWriter file;
    Sha256 hash;
    int writeError = 0;

    ReplyPtr reply(manager().get(requestFor(url)));
    reply->setReadBufferSize(readBufferSize);
    const auto* watchdog = new TransferWatchdog(reply.get());
    QNetworkReply* const raw = reply.get();
    const QMetaObject::Connection streaming =
        QObject::connect(raw, &QNetworkReply::readyRead, raw, [&, raw] {
            if (writeError != 0)
                return;
            writeError = drain(*raw, file, hash);
            if (writeError != 0)
                raw->abort(); // resumes the coroutine; nothing may follow this call
        });
    co_await raw;
    QObject::disconnect(streaming);
    if (writeError == 0)
        writeError = drain(*raw, file, hash);
    if (writeError != 0)
        throwFileError(QStringLiteral("could not write ") + file.path(), writeError);
    throwIfTransportFailed(*raw, *watchdog);
    file.keep();
    co_return DownloadedFile(statusCodeOf(*raw), file.path(), hash.finishHex());
}
