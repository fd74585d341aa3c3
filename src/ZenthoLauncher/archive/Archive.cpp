#include "archive/Archive.h"

#include "errors/LauncherError.h"
#include "process/ProcessTask.h"
#include "trust/Sha256.h"

#include <InflatedTarRun.h>
#include <ProcessCapture.h>

#include <string>
#include <vector>

namespace {

const std::string kTar = "/usr/bin/tar";

std::vector<std::string> native(const QStringList& arguments) {
    std::vector<std::string> args;
    args.reserve(static_cast<std::size_t>(arguments.size()));
    for (const QString& argument : arguments)
        args.push_back(argument.toStdString());
    return args;
}

QString outputOrArchiveFailed(const CapturedProcessResult& result) {
    if (result.status != 0) {
        // tar's own words are the most useful thing to show; they are kept exactly as written.
        throw LauncherError::archiveFailed(result.errors.empty()
                                               ? QStringLiteral("tar failed")
                                               : QString::fromStdString(result.errors));
    }
    return QString::fromStdString(result.output);
}

} // namespace

QStringList listArguments(const QString& archive) {
    return {QStringLiteral("-tzf"), archive};
}

QStringList extractArguments(const QString& archive, const QString& folder) {
    return {QStringLiteral("-xzf"), archive, QStringLiteral("-C"), folder};
}

QStringList streamedListArguments() {
    return {QStringLiteral("-tf"), QStringLiteral("-")};
}

QStringList streamedExtractArguments(const QString& folder) {
    return {QStringLiteral("-xf"), QStringLiteral("-"), QStringLiteral("-C"), folder};
}

std::unique_ptr<InflatedTarRun> startInflatedTar(const QStringList& arguments) {
    return std::make_unique<InflatedTarRun>(kTar, native(arguments));
}

QString runTar(const QStringList& arguments) {
    return outputOrArchiveFailed(ProcessCapture::run(kTar, native(arguments)));
}

QCoro::Task<QString> runTarWithoutBlocking(QStringList arguments) {
    co_return outputOrArchiveFailed(co_await runWithoutBlocking(kTar, native(arguments)));
}

void checkArchiveListing(const QString& listing) {
    // Only line feeds separate names: a carriage return is an ordinary character of a name, so
    // "..\r" is a harmless folder name, not a way out of the extraction folder.
    const QStringList entries = listing.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    for (const QString& entry : entries) {
        if (entry.startsWith(QLatin1Char('/')))
            throw LauncherError::unsafeArchive();
        const QStringList components = entry.split(QLatin1Char('/'), Qt::SkipEmptyParts);
        for (const QString& component : components) {
            if (component == QLatin1String(".."))
                throw LauncherError::unsafeArchive();
        }
    }
}

QString sha256Hex(const QByteArray& bytes) {
    Sha256 digest;
    digest.update(bytes);
    return digest.finishHex();
}
