#pragma once

#include "update/HttpClient.h"

#include <QString>
#include <QUrl>

#include <QCoroTask>

// Downloads a release archive and accepts it only as a plain HTTP 200 answer (a partial, empty or
// cached answer, or a local file, throws LauncherError::downloadFailed) whose SHA-256 equals
// `sha256` lower-cased, exactly: no blanks or prefixes are forgiven (hashMismatch). Errors of the
// transfer itself pass through. `sink`, when given, sees the body as it arrives.
QCoro::Task<DownloadedFile> downloadVerifiedArchive(QUrl url, QString sha256,
                                                    BodySink* sink = nullptr);
