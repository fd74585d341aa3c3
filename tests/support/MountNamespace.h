#pragma once

#include <QList>
#include <QString>
#include <QStringList>

// What a mount namespace holds: its processes and its mounts. A private root is gone only when
// no process is left in its namespace (the kernel then drops every mount in it) and nothing of it
// shows in the host's mount table; teardown and the tests of it both ask these.
namespace MountNamespace {

// The namespace of process `pid` as the kernel names it ("mnt:[4026532417]"); empty when the
// process is gone or has already let go of its namespaces (a zombie).
QString of(qint64 pid);

// Every live process in namespace `name`.
QList<qint64> members(const QString& name);

// The mount points at or under `folder` in the mount table of process `pid` (by default this
// process), as the kernel lists them.
QStringList mountPointsUnder(const QString& folder, qint64 pid = 0);

} // namespace MountNamespace
