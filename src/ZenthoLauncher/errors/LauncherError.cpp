#include "errors/LauncherError.h"

#include <QtGlobal>

LauncherError::LauncherError(Case c, QString text, std::int32_t status)
    : case_(c), text_(std::move(text)), status_(status) {
    utf8_ = errorDescription().toStdString();
}

LauncherError LauncherError::invalidLauncherSignature(const QString& detail) {
    return LauncherError(Case::invalidLauncherSignature, detail);
}

LauncherError LauncherError::gameExited(std::int32_t status) {
    return LauncherError(Case::gameExited, {}, status);
}

LauncherError LauncherError::archiveFailed(const QString& message) {
    return LauncherError(Case::archiveFailed, message);
}

QString LauncherError::errorDescription() const {
    switch (case_) {
    case Case::invalidLauncherSignature:
        return text_.isEmpty() ? QStringLiteral("The launcher signature is invalid.") : text_;
    case Case::gameExited:
        return QStringLiteral("The game exited during startup (status %1).").arg(status_);
    case Case::archiveFailed:
        return text_;
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

QString describeError(const std::exception& error) {
    if (const auto* own = dynamic_cast<const LauncherError*>(&error))
        return own->errorDescription();
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
