#pragma once

#include "RecordingPlatform.h"

#include "errors/LauncherError.h"

#include <QByteArray>
#include <QStringList>
#include <QTemporaryDir>
#include <QUrl>

#include <QCoroTask>

#include <memory>
#include <optional>

class TestServer;

// The platform of a launcher that runs from `executable`, whose process identifier is whatever
// the test says: by default one that has already ended, so a finish script swaps at once.
class SelfUpdatePlatform : public RecordingPlatform {
public:
    explicit SelfUpdatePlatform(const QString& executable);
    qint64 processIdentifier() const override { return pid; }
    qint64 pid;
};

// One launcher self-update scene in a temporary folder: a running launcher bundle whose
// executable records "old" when started and whose verifier is the test build trusting the test
// key, a launcher storage folder, and helpers that build, seal, pack and publish new bundles
// (recording "new") on a real nginx.
class LauncherUpdateFixture {
public:
    explicit LauncherUpdateFixture(TestServer& server);

    QString path(const QString& relative) const { return dir_.path() + QLatin1Char('/') + relative; }
    const QString& launcherRoot() const { return launcherRoot_; }
    const QString& runningBundle() const { return runningBundle_; }
    const QString& record() const { return record_; }
    SelfUpdatePlatform& platform() { return *platform_; }
    const QStringList& statuses() const { return statuses_; }

    // Moves the running launcher: its executable becomes `macosFolder`/ZenthoLauncher, with the
    // verifier beside it. `bundle` is what the swap targets (checked only by the test).
    void runFrom(const QString& bundle, const QString& macosFolder);
    // Replaces the running launcher's verifier with a shell script body.
    void replaceVerifier(const QByteArray& scriptBody);

    // A new bundle `name` with the fake launcher, in a fresh source folder, whose Contents/Info.json
    // says `version` unless that is empty; sealed with `key` unless it is empty. Returns the
    // source folder.
    QString makeNewBundle(const QString& name = QStringLiteral("ZenthoLauncher.app"),
                          const QString& key = defaultKey(), const QString& version = {});
    static QString defaultKey();

    // Serves `archive` and a manifest naming it; returns the manifest's URL.
    QUrl publish(const QByteArray& archive, const QString& version = QStringLiteral("0.2.0"),
                 const QString& executable = QStringLiteral("ZenthoLauncher.app"),
                 std::optional<QString> sha256 = std::nullopt,
                 const QString& platform = QStringLiteral("macos-launcher-arm64"));
    QUrl publishBundle(const QString& source, const QString& version = QStringLiteral("0.2.0"));
    // Serves a manifest document as it is; returns its URL.
    QUrl publishManifest(const QByteArray& json);
    QString archiveUrl(const QByteArray& archive);

    static QByteArray manifestJson(const QString& version, const QString& platform,
                                   const QString& url, const QString& sha256,
                                   const QString& executable);
    static QString hexDigest(const QByteArray& bytes);

    // Drives `task` to its end and returns its result or rethrows its error.
    static bool wait(QCoro::Task<bool> task);
    // Runs the update as the model does.
    bool update(const QUrl& manifest);
    // Runs the update and returns the LauncherError it ends with; none (with a warning) when it
    // ends otherwise.
    std::optional<LauncherError> updateError(const QUrl& manifest);

    // Names under the launcher storage folder that start with `prefix`.
    QStringList leftovers(const QString& prefix) const;
    QByteArray runningLabel() const;
    // The swap happened: the new launcher started and the old bundle is the one backup.
    bool swapDone();
    // Nothing was started and the running bundle is as it was.
    bool nothingStarted();

private:
    TestServer& server_;
    QTemporaryDir dir_;
    QString launcherRoot_;
    QString runningBundle_;
    QString macosFolder_;
    QString record_;
    std::unique_ptr<SelfUpdatePlatform> platform_;
    QStringList statuses_;
    int serial_ = 0;
};
