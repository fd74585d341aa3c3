#pragma once

#include <QString>

#include <cstdio>

class FileManager;

// --verify [VERSION]: every saved build (or the one named) compared in full with the chunk index
// kept for it when it was installed. Prints, for each build, "whole" or what is missing or
// changed; a build without a kept index is named as not checked. The process's exit status: 0
// when every build checked is whole, 1 when any is damaged or the one named is not there or
// cannot be checked.
int verifySavedBuilds(const FileManager& files, const QString& version, std::FILE* output, std::FILE* errors);
