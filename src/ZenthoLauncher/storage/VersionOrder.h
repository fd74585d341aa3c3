#pragma once

#include <QList>
#include <QString>

// Orders version texts the way people read them: runs of ASCII digits compare by their numeric
// value, everything else code point by code point, and a proper prefix is smaller. So 0.1.190 >
// 0.1.99, 0.10.0 > 0.9.9 and 1.0-beta > 1.0. Runs with equal values but different leading zeros
// (1.05 and 1.5) compare equal. Returns <0, 0 or >0.
int compareVersionsNumerically(const QString& a, const QString& b);
// The same order on versions already decoded into code points (QString::toUcs4()), so a long
// list is sorted without decoding every version again at each comparison.
int compareVersionsNumerically(const QList<uint>& a, const QList<uint>& b);
