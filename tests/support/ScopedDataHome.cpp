#include "ScopedDataHome.h"

#include <QtGlobal>

ScopedDataHome::ScopedDataHome()
    : hadPrevious_(qEnvironmentVariableIsSet("XDG_DATA_HOME")),
      previous_(qgetenv("XDG_DATA_HOME")) {
    qputenv("XDG_DATA_HOME", QFile::encodeName(dir_.path()));
}

ScopedDataHome::~ScopedDataHome() {
    if (hadPrevious_)
        qputenv("XDG_DATA_HOME", previous_);
    else
        qunsetenv("XDG_DATA_HOME");
}
