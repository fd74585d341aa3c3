// A download's progress on the desktop's taskbar entry: com.canonical.Unity.LauncherEntry
// "Update" signals on a private session bus, as a dock would receive them, and nothing at all
// when there is no session bus.

#include "TestRequirements.h"

#include "desktop/TaskbarProgress.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QProcess>
#include <QTest>
#include <QVariantMap>

#include <csignal>

#include <sys/prctl.h>

namespace {

// Collects every LauncherEntry update on the bus it listens to.
class DockListener : public QObject {
    Q_OBJECT

public:
    struct Update {
        QString app;
        double progress;
        bool visible;
    };
    QList<Update> updates;

public slots:
    void received(const QString& app, const QVariantMap& properties) {
        updates.append({app, properties.value(QStringLiteral("progress")).toDouble(),
                        properties.value(QStringLiteral("progress-visible")).toBool()});
    }
};

} // namespace

class TestTaskbarProgress : public QObject {
    Q_OBJECT

    QProcess bus_;

private slots:
    // First, before any bus is known to this process: nothing is sent, nothing fails, and no bus
    // is started on the launcher's behalf.
    void withoutASessionBusNothingHappens() {
        qunsetenv("DBUS_SESSION_BUS_ADDRESS");
        qputenv("XDG_RUNTIME_DIR", "/nonexistent-runtime-dir");
        TaskbarProgress taskbar(QStringLiteral("zentho-launcher.desktop"));
        taskbar.show(0.5);
        taskbar.show(-1);
        // The connection Qt would have opened for the session bus was never even asked for.
        QVERIFY(!QDBusConnection(QStringLiteral("qt_default_session_bus")).isConnected());
    }

    void progressReachesTheDock() {
        ZENTHO_REQUIRE(dbus);
        // The bus goes with the test even when the test is killed before cleanupTestCase().
        bus_.setChildProcessModifier([] { ::prctl(PR_SET_PDEATHSIG, SIGKILL); });
        bus_.start(QStringLiteral("/usr/bin/dbus-daemon"),
                   {QStringLiteral("--session"), QStringLiteral("--nofork"),
                    QStringLiteral("--print-address")});
        QVERIFY(bus_.waitForReadyRead(60000));
        const QString address = QString::fromLatin1(bus_.readLine().trimmed());
        QVERIFY(!address.isEmpty());
        qputenv("DBUS_SESSION_BUS_ADDRESS", address.toLatin1());

        QDBusConnection dock = QDBusConnection::connectToBus(address, QStringLiteral("dock"));
        QVERIFY(dock.isConnected());
        DockListener listener;
        QVERIFY(dock.connect(
            QString(), QString(), QStringLiteral("com.canonical.Unity.LauncherEntry"),
            QStringLiteral("Update"), &listener, SLOT(received(QString, QVariantMap))));

        TaskbarProgress taskbar(QStringLiteral("zentho-launcher.desktop"));
        taskbar.show(0.25);
        taskbar.show(0.251); // too small a step to be worth a message
        taskbar.show(0.5);
        taskbar.show(-1);
        taskbar.show(-1); // already cleared
        // Signals from one connection arrive in the order they were sent: once this last one is
        // in, everything sent before it is too.
        taskbar.show(0.75);
        QTRY_COMPARE_WITH_TIMEOUT(listener.updates.size(), 4, 60000);
        QVERIFY(QDBusConnection(QStringLiteral("qt_default_session_bus")).isConnected());
        QCOMPARE(listener.updates[3].progress, 0.75);
        QVERIFY(listener.updates[3].visible);
        for (const DockListener::Update& update : listener.updates)
            QCOMPARE(update.app, QStringLiteral("application://zentho-launcher.desktop"));
        QCOMPARE(listener.updates[0].progress, 0.25);
        QVERIFY(listener.updates[0].visible);
        QCOMPARE(listener.updates[1].progress, 0.5);
        QVERIFY(!listener.updates[2].visible);
    }

    void cleanupTestCase() {
        bus_.kill();
        bus_.waitForFinished(5000);
    }
};

QTEST_GUILESS_MAIN(TestTaskbarProgress)
#include "TestTaskbarProgress.moc"
