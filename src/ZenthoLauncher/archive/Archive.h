#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <QCoroTask>

#include <memory>

class InflatedTarRun;

// The archive helpers shared by the game install and the launcher self-update.

// Runs /usr/bin/tar with `arguments` and returns what it printed on standard output. A non-zero
// exit throws LauncherError::archiveFailed with tar's error text as captured, or "tar failed"
// when that is empty; a failure to run tar at all passes through as the platform's error.
QString runTar(const QStringList& arguments);
// The two tar runs of an install: list the archive, and unpack it into `folder`.
QStringList listArguments(const QString& archive);
QStringList extractArguments(const QString& archive, const QString& folder);

// The same two runs with tar reading the archive, already inflated, from its standard input: the
// fast form, which a literal run above stands behind whenever its result is not clean.
QStringList streamedListArguments();
QStringList streamedExtractArguments(const QString& folder);
// Starts /usr/bin/tar with `arguments` as an InflatedTarRun; throws as that does.
std::unique_ptr<InflatedTarRun> startInflatedTar(const QStringList& arguments);

// runTar for the launcher's coroutines: the same result and errors, but the coroutine suspends
// while tar runs instead of holding up the main thread.
QCoro::Task<QString> runTarWithoutBlocking(QStringList arguments);

// The listing rule for `tar -tzf` output: one name per line (split on line feeds only, empty
// lines dropped); a name that starts with "/" or has a component that is exactly ".." throws
// LauncherError::unsafeArchive. Only names are examined.
void checkArchiveListing(const QString& listing);

// Lower-case hexadecimal SHA-256 of `bytes`: always 64 characters of 0-9a-f.
QString sha256Hex(const QByteArray& bytes);
