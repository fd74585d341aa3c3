#include "FreshDebianBase.h"
#include "TestFiles.h"
#include "TestRequirements.h"
#include "TestServer.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QFileInfo>
#include <QMutex>
#include <QTemporaryDir>
#include <QTest>

#include <future>

#include <sys/file.h>

namespace {

// A cache in a temporary folder, fed by an archive that refuses every connection: whatever
// it hands out was not fetched.
struct UnreachableCache {
    QTemporaryDir folder;
    QString mirror =
        QStringLiteral("http://127.0.0.1:%1/debian").arg(TestServer::unusedLocalPort());
    FreshDebianBase base{QStringLiteral("bookworm"), {folder.path(), mirror}};

    // A root an earlier run left, with a file to tell it by.
    QString leaveRoot() const {
        const QString marker = base.root() + QStringLiteral("/etc/left-by-an-earlier-run");
        TestFiles::writeFile(marker, "x");
        return marker;
    }
    void stamp(const QByteArray& recipe) const {
        TestFiles::writeFile(base.folder() + QStringLiteral("/complete"), recipe);
    }
};

// Progress lines as they come from whichever thread makes the base.
struct Lines {
    QMutex mutex;
    QStringList lines;
    FreshDebianBase::Progress sink() {
        return [this](const QString& line) {
            const QMutexLocker locked(&mutex);
            lines << line;
        };
    }
    QStringList all() {
        const QMutexLocker locked(&mutex);
        return lines;
    }
};

} // namespace

// How the cache of fresh Debian bases decides to make one, reuse one or fail, without the
// minutes a real one takes: TestFreshSystem makes the real ones.
class TestFreshDebianBase : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() {
        ZENTHO_REQUIRE(root);
        ZENTHO_REQUIRE(debootstrap);
    }

    void anUnreachableArchiveFailsWithDebootstrapsWords() {
        const UnreachableCache cache;
        Lines progress;
        QString failure;
        try {
            cache.base.ensure(progress.sink());
        } catch (const std::runtime_error& e) {
            failure = QString::fromUtf8(e.what());
        }
        QVERIFY2(failure.contains(QStringLiteral("debootstrap failed")), qPrintable(failure));
        QVERIFY2(failure.contains(QStringLiteral("Failed getting release file ") + cache.mirror),
                 qPrintable(failure));
        QVERIFY2(failure.contains(QStringLiteral("Connection refused")), qPrintable(failure));
        QVERIFY2(!progress.all().filter(QStringLiteral("Retrieving InRelease")).isEmpty(),
                 qPrintable(progress.all().join('\n')));
        QVERIFY(!cache.base.ready());
        QVERIFY(!QFileInfo::exists(cache.base.folder() + QStringLiteral("/complete")));
        QVERIFY(!QFileInfo::exists(cache.base.root()));
        QVERIFY(!QFileInfo::exists(cache.base.folder() + QStringLiteral("/root.partial")));
    }

    void onlyACompleteBaseOfTheCurrentRecipeIsUsed_data() {
        QTest::addColumn<QString>("stamp");
        QTest::addColumn<bool>("used");
        QTest::newRow("complete") << QStringLiteral("current") << true;
        QTest::newRow("interrupted: no stamp") << QString() << false;
        QTest::newRow("made by an older recipe") << QStringLiteral("fresh-system 0\n") << false;
    }
    void onlyACompleteBaseOfTheCurrentRecipeIsUsed() {
        QFETCH(QString, stamp);
        QFETCH(bool, used);
        const UnreachableCache cache;
        const QString marker = cache.leaveRoot();
        if (!stamp.isEmpty())
            cache.stamp(stamp == QStringLiteral("current") ? cache.base.recipe().toUtf8()
                                                           : stamp.toUtf8());

        Lines progress;
        bool threw = false;
        try {
            QCOMPARE(cache.base.ensure(progress.sink()), cache.base.root());
        } catch (const std::runtime_error&) {
            threw = true;
        }
        QCOMPARE(threw, !used);
        QCOMPARE(QFileInfo::exists(marker), used);
        QCOMPARE(progress.all().isEmpty(), used);
    }

    void aBaseBeingMadeElsewhereIsWaitedFor() {
        const UnreachableCache cache;
        const QString marker = cache.leaveRoot();
        // Another process is making it: it holds the lock and has not stamped it yet.
        QFile lock(cache.base.folder() + QStringLiteral("/lock"));
        QVERIFY(lock.open(QIODevice::ReadWrite));
        QCOMPARE(::flock(lock.handle(), LOCK_EX), 0);

        Lines progress;
        auto waiting =
            std::async(std::launch::async, [&] { return cache.base.ensure(progress.sink()); });
        const QDeadlineTimer deadline(10000);
        while (progress.all().isEmpty() && !deadline.hasExpired())
            QTest::qWait(10);
        QCOMPARE(progress.all(), QStringList{QStringLiteral(
                                     "waiting for another process making the bookworm base")});
        QCOMPARE(waiting.wait_for(std::chrono::milliseconds(0)), std::future_status::timeout);

        // It finishes: the waiting call takes the base as it is, without making it again.
        cache.stamp(cache.base.recipe().toUtf8());
        lock.close();
        QCOMPARE(waiting.get(), cache.base.root());
        QVERIFY(QFileInfo::exists(marker));
        QCOMPARE(progress.all().size(), 1);
    }
};

QTEST_GUILESS_MAIN(TestFreshDebianBase)
#include "TestFreshDebianBase.moc"
