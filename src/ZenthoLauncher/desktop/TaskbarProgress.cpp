#include "desktop/TaskbarProgress.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QFileInfo>
#include <QVariantMap>

#include <cmath>

namespace {

// Only a bus that is already there: asking Qt for the session bus with none configured would
// have D-Bus try to start one for us.
bool sessionBusConfigured() {
    if (!qEnvironmentVariableIsEmpty("DBUS_SESSION_BUS_ADDRESS"))
        return true;
    const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    return !runtime.isEmpty() && QFileInfo::exists(runtime + QStringLiteral("/bus"));
}

// A step the eye can see on a taskbar entry; finer steps are not worth a message each.
constexpr double visibleStep = 0.005;

} // namespace

TaskbarProgress::TaskbarProgress(QString desktopEntry)
    : appUri_(QStringLiteral("application://") + desktopEntry) {}

void TaskbarProgress::show(double fraction) {
    const bool visible = fraction >= 0;
    if (!visible && !shown_)
        return;
    if (visible && shown_ && std::abs(*shown_ - fraction) < visibleStep && fraction < 1)
        return;
    if (!sessionBusConfigured())
        return;
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected())
        return;
    QDBusMessage signal = QDBusMessage::createSignal(
        objectPath(), QStringLiteral("com.canonical.Unity.LauncherEntry"),
        QStringLiteral("Update"));
    const QVariantMap properties{{QStringLiteral("progress"), visible ? fraction : 0.0},
                                 {QStringLiteral("progress-visible"), visible}};
    signal << appUri_ << properties;
    bus.send(signal);
    shown_ = visible ? std::optional<double>(fraction) : std::nullopt;
}
