#pragma once

#include <QString>
#include <QTest>

// What some tests need of the machine they run on: root (mount namespaces, bind mounts, chroot),
// nginx, an X server (Xvfb and the X tools), a session D-Bus, a window manager that frames windows
// (openbox), debootstrap (fresh Debian systems), rclone (publishing to a remote). Where one is
// missing the test is skipped with the reason, as on a developer's laptop; where
// ZENTHO_TESTS_SKIP_NOTHING is set (CI, through .ci/run), a missing one fails the test instead,
// so nothing passes there unrun.
namespace TestRequirements {

enum class Need { root, nginx, xvfb, dbus, windowManager, debootstrap, rclone };

// Why `need` cannot be met here; empty when it can.
QString missing(Need need);

// True where a missing need must fail the test rather than skip it.
bool skippingForbidden();

} // namespace TestRequirements

// Skips (or, where skipping is forbidden, fails) the calling test function, or the whole test
// case when called from initTestCase(), unless `need` is met.
#define ZENTHO_REQUIRE(need)                                                                       \
    do {                                                                                           \
        const QString zenthoMissing = TestRequirements::missing(TestRequirements::Need::need);     \
        if (!zenthoMissing.isEmpty()) {                                                            \
            if (TestRequirements::skippingForbidden())                                             \
                QFAIL(qPrintable(zenthoMissing + QStringLiteral(" (ZENTHO_TESTS_SKIP_NOTHING)"))); \
            QSKIP(qPrintable(zenthoMissing));                                                      \
        }                                                                                          \
    } while (false)
