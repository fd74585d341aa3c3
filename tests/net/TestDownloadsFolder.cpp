// The downloads folder keeps at most one download per kind of release, named after the digest
// its manifest promises, and a clean-up at start keeps exactly what can still be resumed.

#include "TestFiles.h"

#include "net/DownloadsFolder.h"
#include "platform/FileManager.h"

#include <QDir>
#include <QTemporaryDir>
#include <QTest>

namespace {

const QString kDigest = QStringLiteral("ab").repeated(32);
const QString kOther = QStringLiteral("cd").repeated(32);

QStringList entries(const QString& folder) {
    return QDir(folder).entryList(
        QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
}

} // namespace

class TestDownloadsFolder : public QObject {
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> root_;
    QString root() const { return root_->path(); }
    QString downloads() const { return root() + QStringLiteral("/downloads"); }
    DownloadsFolder folder() const {
        return DownloadsFolder(FileManager::defaultManager(), root());
    }
    void put(const QString& name) {
        TestFiles::writeFile(downloads() + QLatin1Char('/') + name, "x");
    }

private slots:
    void init() { root_ = std::make_unique<QTemporaryDir>(); }

    void namesComeFromKindAndDigest() {
        const DownloadsFolder::Partial files =
            folder().prepare(QStringLiteral("macos-arm64"), kDigest.toUpper());
        QCOMPARE(files.archive,
                 downloads() + QStringLiteral("/macos-arm64-") + kDigest + QStringLiteral(".part"));
        QCOMPARE(files.validator, downloads() + QStringLiteral("/macos-arm64-") + kDigest +
                                      QStringLiteral(".validator"));
        QVERIFY(QFileInfo(downloads()).isDir());
    }

    // A manifest's digest is no path: whatever it holds, the name is 64 hex digits.
    void digestThatIsNoDigestNeverMakesAPath() {
        const QString base =
            DownloadsFolder::baseName(QStringLiteral("macos-arm64"), QStringLiteral("../../x"));
        QVERIFY(QRegularExpression(QStringLiteral("^macos-arm64-[0-9a-f]{64}$"))
                    .match(base)
                    .hasMatch());
        QVERIFY(base != DownloadsFolder::baseName(QStringLiteral("macos-arm64"),
                                                  QStringLiteral("../../y")));
    }

    void preparingARemovesTheOlderReleaseOfItsKindOnly() {
        put(QStringLiteral("macos-arm64-") + kOther + QStringLiteral(".part"));
        put(QStringLiteral("macos-arm64-") + kOther + QStringLiteral(".validator"));
        put(QStringLiteral("macos-launcher-arm64-") + kOther + QStringLiteral(".part"));
        put(QStringLiteral("macos-launcher-arm64-") + kOther + QStringLiteral(".validator"));
        put(QStringLiteral("macos-arm64-") + kDigest + QStringLiteral(".part"));
        folder().prepare(QStringLiteral("macos-arm64"), kDigest);
        QCOMPARE(
            entries(downloads()),
            (QStringList{QStringLiteral("macos-arm64-") + kDigest + QStringLiteral(".part"),
                         QStringLiteral("macos-launcher-arm64-") + kOther + QStringLiteral(".part"),
                         QStringLiteral("macos-launcher-arm64-") + kOther +
                             QStringLiteral(".validator")}));
    }

    void cleanUpKeepsWhatCanBeResumed() {
        put(QStringLiteral("macos-arm64-") + kDigest + QStringLiteral(".part"));
        put(QStringLiteral("macos-arm64-") + kDigest + QStringLiteral(".validator"));
        folder().removeStale();
        QCOMPARE(entries(downloads()).size(), 2);
    }

    // The twin: what no download can go on from goes, and names the launcher never makes too.
    void cleanUpRemovesWhatCannotBeResumed() {
        put(QStringLiteral("macos-arm64-") + kDigest + QStringLiteral(".part")); // finished
        put(QStringLiteral("macos-launcher-arm64-") + kOther +
            QStringLiteral(".validator")); // orphan
        put(QStringLiteral("zentho-download-1234"));
        put(QStringLiteral(".hidden"));
        TestFiles::writeFile(downloads() + QStringLiteral("/folder/inside"), "x");
        folder().removeStale();
        QCOMPARE(entries(downloads()), QStringList());
        folder().removeIfEmpty();
        QVERIFY(!QFileInfo::exists(downloads()));
    }

    void emptyFolderGoesOnlyWhenEmpty() {
        put(QStringLiteral("macos-arm64-") + kDigest + QStringLiteral(".part"));
        folder().removeIfEmpty();
        QVERIFY(QFileInfo(downloads()).isDir());
    }
};

QTEST_GUILESS_MAIN(TestDownloadsFolder)
#include "TestDownloadsFolder.moc"
