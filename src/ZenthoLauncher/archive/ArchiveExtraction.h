#pragma once

#include <QString>

#include <QCoroTask>

class FileManager;

// Unpacks the verified archive at `archive` into the empty folder `folder`, ending as
// `runTar(extractArguments(archive, folder))` would, with the same tree and the same
// LauncherError when tar fails. The archive is inflated with igzip and fed to `tar -xf -`; when
// that run cannot vouch for its result (the archive is not one plain gzip member, tar failed),
// the folder is emptied and the literal run unpacks it instead. The coroutine suspends while tar
// runs.
QCoro::Task<void> extractArchive(const FileManager& files, QString archive, QString folder);
