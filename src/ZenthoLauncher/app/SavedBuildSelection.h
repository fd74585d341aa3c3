#pragma once

#include <QString>
#include <QStringList>

#include <cstdio>
#include <optional>

// The saved builds --verify and --repair work on: every folder of `versionsRoot` by name, or only
// `version` when one is named. Nothing, after saying so on `errors`, when the named one is not
// saved.
std::optional<QStringList> selectSavedBuilds(const QString& versionsRoot, const QString& version, std::FILE* errors);
