#pragma once

#include "errors/Failure.h"

#include <QString>

#include <cstdint>
#include <exception>

// The launcher's own failure vocabulary. Failures of platform services (network, files, JSON,
// processes) are not turned into these: they travel as their own exception types and are shown
// with their own text.
class LauncherError : public Failure {
public:
    enum class Case {
        invalidLauncherSignature,
        gameExited,
        archiveFailed,
        badManifest,
        wrongPlatform,
        downloadFailed,
        hashMismatch,
        unsafeArchive,
        missingExecutable,
        badLauncherManifest,
        wrongLauncherPlatform,
        missingLauncherExecutable,
        launcherLocationNotWritable,
    };

    static LauncherError invalidLauncherSignature(const QString& detail);
    static LauncherError gameExited(std::int32_t status);
    static LauncherError archiveFailed(const QString& message);
    static LauncherError badManifest() { return LauncherError(Case::badManifest); }
    static LauncherError wrongPlatform() { return LauncherError(Case::wrongPlatform); }
    static LauncherError downloadFailed() { return LauncherError(Case::downloadFailed); }
    static LauncherError hashMismatch() { return LauncherError(Case::hashMismatch); }
    static LauncherError unsafeArchive() { return LauncherError(Case::unsafeArchive); }
    static LauncherError missingExecutable() { return LauncherError(Case::missingExecutable); }
    static LauncherError badLauncherManifest() { return LauncherError(Case::badLauncherManifest); }
    static LauncherError wrongLauncherPlatform() { return LauncherError(Case::wrongLauncherPlatform); }
    static LauncherError missingLauncherExecutable() {
        return LauncherError(Case::missingLauncherExecutable);
    }
    static LauncherError launcherLocationNotWritable() {
        return LauncherError(Case::launcherLocationNotWritable);
    }

    Case errorCase() const { return case_; }
    QString detail() const { return text_; }         // payload of the two text-carrying cases
    std::int32_t exitStatus() const { return status_; } // payload of gameExited

    // The user-facing text.
    QString errorDescription() const { return description(); }

    bool operator==(const LauncherError& other) const {
        return case_ == other.case_ && text_ == other.text_ && status_ == other.status_;
    }

private:
    explicit LauncherError(Case c, QString text = {}, std::int32_t status = 0);

    Case case_;
    QString text_;
    std::int32_t status_;
};

// The text that follows a status prefix such as "Update failed: ": a Failure's own description,
// or the platform's text for any other error.
QString describeError(const std::exception& error);
QString describeError(std::exception_ptr error);
