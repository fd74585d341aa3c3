#pragma once

#include <QString>

#include <utility>

// The launcher's storage under a data home ($XDG_DATA_HOME), named here once so that a test's
// idea of where the launcher keeps its builds cannot drift from test to test. Tests of the
// layout itself spell it out on their own, since there the path is what they check.
class LauncherStorage {
public:
    explicit LauncherStorage(QString dataHome) : dataHome_(std::move(dataHome)) {}

    QString dataHome() const { return dataHome_; }
    QString root() const { return dataHome_ + QStringLiteral("/Zentho/launcher"); }
    QString versions() const { return root() + QStringLiteral("/versions"); }
    QString build(const QString& version) const { return versions() + QLatin1Char('/') + version; }
    QString state() const { return root() + QStringLiteral("/current-macos.json"); }
    QString downloads() const { return root() + QStringLiteral("/downloads"); }
    QString chunks() const { return root() + QStringLiteral("/chunks"); }

private:
    QString dataHome_;
};
