#include "TestRequirements.h"

#include <QFileInfo>
#include <QStandardPaths>

#include <unistd.h>

namespace TestRequirements {

namespace {

QString missingProgram(const QString& program, const QString& package) {
    if (!QStandardPaths::findExecutable(program).isEmpty() ||
        QFileInfo(QStringLiteral("/usr/sbin/") + program).isExecutable())
        return {};
    return QStringLiteral("needs %1 (Debian package %2)").arg(program, package);
}

} // namespace

QString missing(Need need) {
    switch (need) {
    case Need::root:
        return ::geteuid() == 0 ? QString()
                                : QStringLiteral("needs root, for private mount namespaces and bind mounts");
    case Need::nginx:
        return missingProgram(QStringLiteral("nginx"), QStringLiteral("nginx-light"));
    case Need::xvfb:
        for (const auto& [program, package] : {std::pair{"Xvfb", "xvfb"}, std::pair{"xwininfo", "x11-utils"}}) {
            const QString lacking = missingProgram(QString::fromLatin1(program), QString::fromLatin1(package));
            if (!lacking.isEmpty())
                return lacking;
        }
        return {};
    case Need::dbus:
        return missingProgram(QStringLiteral("dbus-daemon"), QStringLiteral("dbus-daemon"));
    case Need::windowManager:
        return missingProgram(QStringLiteral("openbox"), QStringLiteral("openbox"));
    case Need::debootstrap:
        return missingProgram(QStringLiteral("debootstrap"), QStringLiteral("debootstrap"));
    case Need::rclone:
        return missingProgram(QStringLiteral("rclone"), QStringLiteral("rclone"));
    }
    return {};
}

bool skippingForbidden() {
    return !qEnvironmentVariableIsEmpty("ZENTHO_TESTS_SKIP_NOTHING");
}

} // namespace TestRequirements
