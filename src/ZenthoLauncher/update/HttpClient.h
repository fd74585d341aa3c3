#pragma once

#include "update/TransferLimits.h"

#include <QByteArray>
#include <QString>
#include <QUrl>

#include <QCoroTask>

#include <optional>
#include <stdexcept>

class BodySink;

// A transport failure (no route, refused, TLS, timeout, stalled or too slow body, refused
// redirect, a body larger than the launcher accepts), carrying Qt's own description of it or
// the launcher's one-line reason.
class NetworkError : public std::runtime_error {
public:
    explicit NetworkError(const QString& description)
        : std::runtime_error(description.toStdString()) {}
};

// What a GET brought back. `statusCode` is absent when the answer was not HTTP at all (a file:
// URL); callers decide what a status means.
struct HttpResponse {
    std::optional<int> statusCode;
    QByteArray body;
};

// A response body saved to a temporary file, hashed while it streamed in. The file belongs to
// this object: it is removed when the object goes away, so the caller keeps it alive for exactly
// as long as it needs the file (for an install: until extraction has finished).
class DownloadedFile {
public:
    DownloadedFile() = default;
    DownloadedFile(std::optional<int> statusCode, QString path, QString sha256Hex);
    DownloadedFile(DownloadedFile&& other) noexcept;
    DownloadedFile& operator=(DownloadedFile&& other) noexcept;
    DownloadedFile(const DownloadedFile&) = delete;
    DownloadedFile& operator=(const DownloadedFile&) = delete;
    ~DownloadedFile();

    std::optional<int> statusCode() const { return statusCode_; }
    const QString& path() const { return path_; }
    // Lower-case hex SHA-256 of every byte written to the file.
    const QString& sha256Hex() const { return sha256Hex_; }

private:
    std::optional<int> statusCode_;
    QString path_;
    QString sha256Hex_;
};

// The launcher's one HTTP client, shared by every task. Its network manager lives until the
// process ends, because a coroutine awaiting a reply must never see its manager destroyed.
// Operations run on the main thread and suspend only while the transfer runs. Transport failures
// throw NetworkError; HTTP error statuses do not throw.
class HttpClient {
public:
    explicit HttpClient(TransferLimits limits = {}) : limits_(limits) {}
    // The client with the product's limits.
    static HttpClient& shared();

    // One GET of `url` into memory: a manifest. Its body is capped and the whole fetch has a
    // deadline.
    QCoro::Task<HttpResponse> data(QUrl url);
    // One GET of `url` streamed to a temporary file: an archive. It stops when the body outgrows
    // its Content-Length or would eat into the free-space reserve, and removes the file. `sink`,
    // when given, sees every byte the digest sees, in order.
    QCoro::Task<DownloadedFile> download(QUrl url, BodySink* sink = nullptr);

private:
    TransferLimits limits_;
};
