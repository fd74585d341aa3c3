#pragma once

#include <QString>

#include <cstdio>

class FileManager;

// --repair [VERSION]: every saved build (or the one named) with a kept index is checked in full
// and, when damaged, put right (BuildRepair), fetching only the chunks nowhere on this disk. Prints
// for each build "whole", what was repaired, or why it could not be; the process's exit status:
// 0 when every build checked is whole afterwards, 1 otherwise (and when the one named is not
// there or has no index). Runs its own event loop; call it before any other Qt application exists.
int repairSavedBuilds(const FileManager& files, const QString& version, std::FILE* output, std::FILE* errors);
