#include "MountNamespace.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <unistd.h>

namespace MountNamespace {

namespace {

// mountinfo escapes blanks, tabs, line feeds and backslashes in paths as octal (\040).
QString unescaped(const QByteArray& field) {
    QByteArray out;
    for (qsizetype i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size()) {
            bool ok = false;
            const int code = field.mid(i + 1, 3).toInt(&ok, 8);
            if (ok) {
                out += char(code);
                i += 3;
                continue;
            }
        }
        out += field[i];
    }
    return QFile::decodeName(out);
}

} // namespace

QString of(qint64 pid) {
    // Not a path but a name, so QFile::symLinkTarget would make it into one.
    char name[64];
    const QByteArray link = QByteArray("/proc/") + QByteArray::number(pid) + "/ns/mnt";
    const ssize_t length = ::readlink(link.constData(), name, sizeof name);
    return length > 0 ? QString::fromLatin1(name, length) : QString();
}

QList<qint64> members(const QString& name) {
    QList<qint64> found;
    if (name.isEmpty())
        return found;
    const QStringList entries =
        QDir(QStringLiteral("/proc")).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString& entry : entries) {
        bool numeric = false;
        const qint64 pid = entry.toLongLong(&numeric);
        if (numeric && of(pid) == name)
            found << pid;
    }
    return found;
}

QStringList mountPointsUnder(const QString& folder, qint64 pid) {
    const QString table = pid > 0 ? QStringLiteral("/proc/%1/mountinfo").arg(pid)
                                  : QStringLiteral("/proc/self/mountinfo");
    QFile file(table);
    QStringList points;
    if (!file.open(QIODevice::ReadOnly))
        return points;
    const QString canonical = QFileInfo(folder).canonicalFilePath();
    const QString base = canonical.isEmpty() ? QDir::cleanPath(folder) : canonical;
    for (const QByteArray& line : file.readAll().split('\n')) {
        // ID parent major:minor root mount-point options ...
        const QList<QByteArray> fields = line.split(' ');
        if (fields.size() < 5)
            continue;
        const QString point = unescaped(fields[4]);
        if (point == base || point.startsWith(base + QLatin1Char('/')))
            points << point;
    }
    return points;
}

} // namespace MountNamespace
