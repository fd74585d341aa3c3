#include "LauncherUpdateFixture.h"

#include "LauncherBundles.h"
#include "ManifestJson.h"
#include "TestArchives.h"
#include "TestFiles.h"
#include "TestServer.h"

#include "identity/LauncherVersion.h"
#include "identity/TrustedManifestKeys.h"
#include "net/HttpClient.h"
#include "platform/FileManager.h"
#include "update/LauncherUpdater.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QTest>

SelfUpdatePlatform::SelfUpdatePlatform(const QString& executable)
    : RecordingPlatform(executable, {executable}), pid(LauncherBundles::endedProcessIdentifier()) {}

LauncherUpdateFixture::LauncherUpdateFixture(TestServer& server)
    : server_(server),
      launcherRoot_(path(QStringLiteral("data/Zentho/launcher"))),
      record_(path(QStringLiteral("record"))) {
    const QString bundle = path(QStringLiteral("Applications/ZenthoLauncher.app"));
    runFrom(bundle, bundle + QStringLiteral("/Contents/MacOS"));
}

QString LauncherUpdateFixture::defaultKey() {
    return LauncherBundles::testKey();
}

void LauncherUpdateFixture::runFrom(const QString& bundle, const QString& macosFolder) {
    runningBundle_ = bundle;
    macosFolder_ = macosFolder;
    LauncherBundles::makeFake(bundle, "old", record_);
    TestFiles::writeScript(macosFolder + QStringLiteral("/ZenthoLauncher"),
                           "echo old >> '" + QFile::encodeName(record_) + "'\n");
    const QString verifier = macosFolder + QStringLiteral("/zentho-codesign");
    QFile::remove(verifier);
    if (!QFile::copy(LauncherBundles::testVerifier(), verifier))
        qWarning("could not copy the test verifier from %s", qPrintable(LauncherBundles::testVerifier()));
    platform_ = std::make_unique<SelfUpdatePlatform>(macosFolder + QStringLiteral("/ZenthoLauncher"));
}

void LauncherUpdateFixture::replaceVerifier(const QByteArray& scriptBody) {
    const QString verifier = macosFolder_ + QStringLiteral("/zentho-codesign");
    QFile::remove(verifier);
    TestFiles::writeScript(verifier, scriptBody);
}

QString LauncherUpdateFixture::makeNewBundle(const QString& name, const QString& key,
                                             const QString& version) {
    const QString source = path(QStringLiteral("source-%1").arg(++serial_));
    LauncherBundles::makeFake(source + QLatin1Char('/') + name, "new", record_);
    if (!version.isEmpty())
        TestFiles::writeFile(source + QLatin1Char('/') + name + QStringLiteral("/Contents/Info.json"),
                             "{\"version\":\"" + version.toUtf8() + "\"}\n");
    if (!key.isEmpty() && !LauncherBundles::seal(source + QLatin1Char('/') + name, key))
        qWarning("could not seal %s", qPrintable(source));
    return source;
}

QByteArray LauncherUpdateFixture::manifestJson(const QString& version, const QString& platform,
                                               const QString& url, const QString& sha256,
                                               const QString& executable) {
    return ManifestJson(version, url, sha256).platform(platform).executable(executable);
}

QString LauncherUpdateFixture::hexDigest(const QByteArray& bytes) {
    return QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex());
}

QString LauncherUpdateFixture::archiveUrl(const QByteArray& archive) {
    const QString name = QStringLiteral("launcher-%1.tar.gz").arg(++serial_);
    server_.writeFile(name, archive);
    return server_.url(QLatin1Char('/') + name).toString();
}

QUrl LauncherUpdateFixture::publishManifest(const QByteArray& json) {
    const QString name = QStringLiteral("launcher-%1.json").arg(++serial_);
    server_.writeFile(name, json);
    return server_.url(QLatin1Char('/') + name);
}

QUrl LauncherUpdateFixture::publish(const QByteArray& archive, const QString& version,
                                    const QString& executable, std::optional<QString> sha256,
                                    const QString& platform) {
    return publishManifest(manifestJson(version, platform, archiveUrl(archive),
                                        sha256.value_or(hexDigest(archive)), executable));
}

QUrl LauncherUpdateFixture::publishBundle(const QString& source, const QString& version) {
    return publish(TestArchives::bytesOf(source, {QStringLiteral("ZenthoLauncher.app")}), version);
}

namespace {

struct Outcome {
    bool value = false;
    std::exception_ptr error;
};

// QCoro::waitFor never returns when the task throws after it first suspended (its nested loop
// is only quit on success), so the error is caught inside a coroutine and rethrown out here.
QCoro::Task<Outcome> capture(QCoro::Task<bool> task) {
    Outcome outcome;
    try {
        outcome.value = co_await std::move(task);
    } catch (...) {
        outcome.error = std::current_exception();
    }
    co_return outcome;
}

} // namespace

bool LauncherUpdateFixture::wait(QCoro::Task<bool> task) {
    const Outcome outcome = QCoro::waitFor(capture(std::move(task)));
    if (outcome.error)
        std::rethrow_exception(outcome.error);
    return outcome.value;
}

bool LauncherUpdateFixture::update(const QUrl& manifest) {
    HttpClient http;
    const InstallContext context{FileManager::defaultManager(), http, launcherRoot_,
                                 [this](const QString& text) { statuses_.append(text); }};
    LauncherUpdater updater(context, *platform_, {launcherVersion(), trustedManifestKeys()});
    const Outcome outcome = QCoro::waitFor(capture(updater.updateIfNeeded(manifest)));
    if (outcome.error)
        std::rethrow_exception(outcome.error);
    return outcome.value;
}

std::optional<LauncherError> LauncherUpdateFixture::updateError(const QUrl& manifest) {
    try {
        update(manifest);
    } catch (const LauncherError& error) {
        return error;
    } catch (const std::exception& error) {
        qWarning("the update failed with another error: %s", error.what());
        return std::nullopt;
    }
    qWarning("the update did not fail");
    return std::nullopt;
}

QStringList LauncherUpdateFixture::leftovers(const QString& prefix) const {
    return QDir(launcherRoot_)
        .entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden, QDir::Name)
        .filter(QRegularExpression(QLatin1Char('^') + QRegularExpression::escape(prefix)));
}

QByteArray LauncherUpdateFixture::runningLabel() const {
    return TestFiles::readFile(runningBundle_ + QStringLiteral("/Contents/Resources/label.txt"));
}

bool LauncherUpdateFixture::swapDone() {
    if (!LauncherBundles::waitForRecorded(record_, "new\n"))
        return false;
    const QStringList backups = leftovers(QStringLiteral("launcher-backup-"));
    return runningLabel() == "new\n" && backups.size() == 1 &&
           TestFiles::readFile(launcherRoot_ + QLatin1Char('/') + backups.first() +
                               QStringLiteral("/Contents/Resources/label.txt")) == "old\n";
}

bool LauncherUpdateFixture::nothingStarted() {
    // A finish script is written before it is started and is never removed, so where there is
    // none, none was started, and nothing will swap or start a launcher later.
    return leftovers(QStringLiteral("finish-launcher-update-")).isEmpty() &&
           leftovers(QStringLiteral("launcher-backup-")).isEmpty() &&
           LauncherBundles::recorded(record_).isEmpty() && runningLabel() == "old\n";
}
