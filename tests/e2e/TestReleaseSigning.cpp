// Signed manifests made with zentho-release as a release engineer would: pack --sign-key writes
// the detached signature (checked here with the openssl command line, independently of the
// launcher's code), --expires-in the date it covers, and verify refuses what a launcher that
// requires signed manifests refuses.

#include "LauncherBundles.h"
#include "ReleaseTool.h"
#include "TestFiles.h"

#include "formats/ReleaseManifest.h"
#include "trust/Ed25519Key.h"

#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

using ReleaseTool::Run;

class TestReleaseSigning : public QObject {
    Q_OBJECT

    QTemporaryDir* tmp_ = nullptr;

    QString path(const QString& relative) const { return tmp_->filePath(relative); }
    QString out() const { return path(QStringLiteral("out")); }
    QString manifest() const { return out() + QStringLiteral("/macos-arm64-manifest.json"); }
    QString archive() const { return out() + QStringLiteral("/zentho-0.2.0-macos-arm64.tar.gz"); }
    QString game() {
        const QString folder = path(QStringLiteral("game"));
        if (!QFileInfo::exists(folder)) {
            TestFiles::makeFolder(folder);
            QFile::copy(ReleaseTool::standinGame020(), folder + QStringLiteral("/zentho"));
        }
        return folder;
    }
    Run pack(const QStringList& extra) {
        return ReleaseTool::packGame(game(), QStringLiteral("0.2.0"), QStringLiteral("https://h.invalid/release"),
                                     out(), extra);
    }
    Run verify(const QStringList& manifestKeys) {
        QStringList arguments{QStringLiteral("verify")};
        for (const QString& key : manifestKeys)
            arguments << QStringLiteral("--manifest-key") << key;
        return ReleaseTool::run(arguments + QStringList{manifest(), archive()});
    }
    static QString pub(const QString& key) { return key + QStringLiteral(".pub"); }
    // The failure's one line, with the tool's prefix.
    static void expectVerifyFailure(const Run& run, const QByteArray& message) {
        QCOMPARE(run.exitCode, 1);
        QCOMPARE(run.errors, "zentho-release verify: " + message + '\n');
    }

private slots:
    void initTestCase() {
        QVERIFY2(QFileInfo::exists(LauncherBundles::releaseTool()), "zentho-release is not built");
    }
    void init() { tmp_ = new QTemporaryDir; }
    void cleanup() { delete tmp_; }

    void packSignsTheManifestsExactBytes() {
        const Run packed = pack({QStringLiteral("--sign-key"), ReleaseTool::testManifestKey()});
        QVERIFY2(packed.ok(), packed.errors.constData());
        const QString signature = manifest() + QStringLiteral(".sig");
        QCOMPARE(packed.line(QStringLiteral("signature")), signature);
        QCOMPARE(QFileInfo(signature).size(), 64);
        QCOMPARE(TestFiles::modeOf(signature), 0644);

        QProcess openssl;
        openssl.start(QStringLiteral("openssl"), {QStringLiteral("pkeyutl"), QStringLiteral("-verify"), QStringLiteral("-pubin"),
                                                  QStringLiteral("-inkey"), pub(ReleaseTool::testManifestKey()), QStringLiteral("-rawin"),
                                                  QStringLiteral("-in"), manifest(), QStringLiteral("-sigfile"), signature});
        QVERIFY(openssl.waitForFinished());
        QVERIFY2(openssl.exitCode() == 0, openssl.readAllStandardError().constData());

        const Run checked = verify({pub(ReleaseTool::testManifestKey())});
        QVERIFY2(checked.ok(), checked.errors.constData());
        QCOMPARE(checked.output, QByteArray("ok: macos-arm64 0.2.0: signature, digest, listing, executable checked\n"));
        // Trusting the current and the next key, as a launcher does during a rotation.
        QVERIFY(verify({pub(ReleaseTool::testManifestKeyNext()), pub(ReleaseTool::testManifestKey())}).ok());
        expectVerifyFailure(verify({pub(ReleaseTool::testManifestKeyNext())}),
                            "signature: The manifest is not signed by a trusted key.");
        // This build's launcher takes unsigned manifests, so the tool has no key of its own here.
        const Run noKey = verify({});
        QCOMPARE(noKey.exitCode, 2);
        QCOMPARE(noKey.errors, "zentho-release verify: " + QFile::encodeName(signature) +
                                   " is there but no manifest key is known to check it; give "
                                   "--manifest-key PUBLIC_KEY (see --help)\n");
    }

    void aManifestChangedAfterSigningIsRefused() {
        QVERIFY(pack({QStringLiteral("--sign-key"), ReleaseTool::testManifestKey()}).ok());
        QByteArray bytes = TestFiles::readFile(manifest());
        bytes.replace("\"executable\":\"zentho\"", "\"executable\":\"zentho\",\"notes\":\"x\"");
        TestFiles::writeFile(manifest(), bytes);
        expectVerifyFailure(verify({pub(ReleaseTool::testManifestKey())}),
                            "signature: The manifest is not signed by a trusted key.");
    }

    void aMissingSignatureFailsWhereKeysAreRequired() {
        QVERIFY(pack({}).ok());
        QVERIFY(verify({}).ok()); // unsigned, as the default launcher takes it
        expectVerifyFailure(verify({pub(ReleaseTool::testManifestKey())}),
                            "signature: " + QFile::encodeName(manifest()) +
                                ".sig is missing; launchers that require signed manifests refuse this one");
    }

    void expiresInPutsTheDateUnderTheSignature() {
        const QDateTime before = QDateTime::currentDateTimeUtc();
        const Run packed = pack({QStringLiteral("--sign-key"), ReleaseTool::testManifestKey(),
                                 QStringLiteral("--expires-in"), QStringLiteral("30")});
        QVERIFY2(packed.ok(), packed.errors.constData());
        const QString expires = QJsonDocument::fromJson(TestFiles::readFile(manifest())).object()
                                    .value(QStringLiteral("expires")).toString();
        QCOMPARE(packed.line(QStringLiteral("expires")), expires);
        const QDateTime moment = QDateTime::fromString(expires, Qt::ISODate);
        QVERIFY2(expires.endsWith(QLatin1Char('Z')) && moment.isValid(), qPrintable(expires));
        QVERIFY(qAbs(before.addDays(30).secsTo(moment)) < 60);
        // Readers that know nothing of "expires" read the manifest as before.
        QCOMPARE(ReleaseManifest::decode(TestFiles::readFile(manifest())).version, QStringLiteral("0.2.0"));
        const Run checked = verify({pub(ReleaseTool::testManifestKey())});
        QVERIFY2(checked.ok(), checked.errors.constData());
        QVERIFY(checked.output.startsWith("ok: macos-arm64 0.2.0: signature until " + expires.toUtf8() + ", digest"));

        // The same manifest signed with a date that has passed.
        QByteArray bytes = TestFiles::readFile(manifest());
        bytes.replace(expires.toUtf8(), "2001-02-03T04:05:06Z");
        TestFiles::writeFile(manifest(), bytes);
        const Ed25519Key key = Ed25519Key::fromFile(QFile::encodeName(ReleaseTool::testManifestKey()).toStdString());
        TestFiles::writeFile(manifest() + QStringLiteral(".sig"), QByteArray::fromStdString(key.sign(bytes.toStdString())));
        expectVerifyFailure(verify({pub(ReleaseTool::testManifestKey())}),
                            "signature: The manifest expired at 2001-02-03T04:05:06Z.");
    }

    void signingMistakesAreRefused_data() {
        QTest::addColumn<QStringList>("extra");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("message");
        const QString key = ReleaseTool::testManifestKey();
        QTest::newRow("expiry unsigned") << QStringList{QStringLiteral("--expires-in"), QStringLiteral("30")} << 2
                                         << "--expires-in needs --sign-key: only a signed manifest can expire (see --help)";
        for (const char* days : {"0", "-1", "3651", "30d", "+5", ""})
            QTest::newRow((QByteArray("expiry ") + days).constData())
                << QStringList{QStringLiteral("--sign-key"), key, QStringLiteral("--expires-in"), QString::fromLatin1(days)} << 2
                << QStringLiteral("--expires-in must be a whole number of days from 1 to 3650, not \"%1\" (see --help)").arg(QLatin1String(days));
        QTest::newRow("public key") << QStringList{QStringLiteral("--sign-key"), pub(key)} << 1
                                    << pub(key) + QStringLiteral(": is a public key; signing needs the private key");
        QTest::newRow("no key file") << QStringList{QStringLiteral("--sign-key"), QStringLiteral("/nonexistent.key")} << 1
                                     << "/nonexistent.key: cannot be read";
        QTest::newRow("twice") << QStringList{QStringLiteral("--sign-key"), key, QStringLiteral("--sign-key"), key} << 2
                               << "--sign-key is given more than once (see --help)";
    }
    void signingMistakesAreRefused() {
        QFETCH(QStringList, extra);
        QFETCH(int, exitCode);
        QFETCH(QString, message);
        const Run packed = pack(extra);
        QCOMPARE(packed.exitCode, exitCode);
        QCOMPARE(QString::fromUtf8(packed.errors), QStringLiteral("zentho-release pack: ") + message + QLatin1Char('\n'));
        QVERIFY(!QFileInfo::exists(out()));
    }

    // A signature left from an earlier pack would be served with a manifest it does not match.
    void packingAgainWithoutAKeyRemovesTheStaleSignature() {
        QVERIFY(pack({QStringLiteral("--sign-key"), ReleaseTool::testManifestKey()}).ok());
        QVERIFY(QFile::remove(manifest()));
        QVERIFY(QFile::remove(archive()));
        const Run kept = pack({});
        QCOMPARE(kept.exitCode, 1);
        QCOMPARE(kept.errors, "zentho-release pack: " + QFile::encodeName(manifest()) +
                                  ".sig already exists; use --force to replace it\n");
        const Run forced = pack({QStringLiteral("--force")});
        QVERIFY2(forced.ok(), forced.errors.constData());
        QVERIFY(!QFileInfo::exists(manifest() + QStringLiteral(".sig")));
        QCOMPARE(forced.line(QStringLiteral("signature")), QString());
    }
};

QTEST_MAIN(TestReleaseSigning)
#include "TestReleaseSigning.moc"
