#include "errors/LauncherError.h"

#include <QtGlobal>

namespace {

QString descriptionOf(LauncherError::Case c, const QString& text, std::int32_t status) {
    using Case = LauncherError::Case;
    switch (c) {
    case Case::invalidLauncherSignature:
        return text.isEmpty() ? QStringLiteral("The launcher signature is invalid.") : text;
    case Case::gameExited:
        return QStringLiteral("The game exited during startup (status %1).").arg(status);
    case Case::archiveFailed:
        return text;
    case Case::badManifest:
        return QStringLiteral("The update manifest is unavailable.");
    case Case::wrongPlatform:
        return QStringLiteral("This update is not for Apple Silicon Macs.");
    case Case::downloadFailed:
        return QStringLiteral("The update download failed.");
    case Case::hashMismatch:
        return QStringLiteral("The update failed its SHA-256 verification.");
    case Case::unsafeArchive:
        return QStringLiteral("The update archive contains an unsafe path.");
    case Case::missingExecutable:
        return QStringLiteral("The update is missing the game executable.");
    case Case::badLauncherManifest:
        return QStringLiteral("The launcher update manifest is unavailable.");
    case Case::wrongLauncherPlatform:
        return QStringLiteral("This launcher update is not for this macOS version.");
    case Case::missingLauncherExecutable:
        return QStringLiteral("The update is missing the launcher executable.");
    case Case::launcherLocationNotWritable:
        return QStringLiteral(
            "Move the launcher to Applications or another writable folder, then try again.");
    }
    Q_UNREACHABLE();
    return {};
}

} // namespace

LauncherError::LauncherError(Case c, QString text, std::int32_t status)
    : Failure(descriptionOf(c, text, status)), case_(c), text_(std::move(text)), status_(status) {}

LauncherError LauncherError::invalidLauncherSignature(const QString& detail) {
    return LauncherError(Case::invalidLauncherSignature, detail);
}

LauncherError LauncherError::gameExited(std::int32_t status) {
    return LauncherError(Case::gameExited, {}, status);
}

LauncherError LauncherError::archiveFailed(const QString& message) {
    return LauncherError(Case::archiveFailed, message);
}

QString describeError(const std::exception& error) {
    // A Failure carries its text as UTF-8, and what() of the platform's own errors says it there.
    return QString::fromUtf8(error.what());
}

QString describeError(std::exception_ptr error) {
    try {
        std::rethrow_exception(error);
    } catch (const std::exception& e) {
        return describeError(e);
    } catch (...) {
        return QStringLiteral("An unknown error occurred.");
    }
}
