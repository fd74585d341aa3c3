#include "storage/VersionOrder.h"

#include <QList>

namespace {

bool isDigit(uint c) {
    return c >= '0' && c <= '9';
}

// Compares two digit runs by value without converting them, so any length works.
int compareDigitRuns(const QList<uint>& a, qsizetype& i, const QList<uint>& b,
                     qsizetype& j) {
    while (i < a.size() && a[i] == '0' && i + 1 < a.size() && isDigit(a[i + 1]))
        ++i;
    while (j < b.size() && b[j] == '0' && j + 1 < b.size() && isDigit(b[j + 1]))
        ++j;
    qsizetype endA = i;
    while (endA < a.size() && isDigit(a[endA]))
        ++endA;
    qsizetype endB = j;
    while (endB < b.size() && isDigit(b[endB]))
        ++endB;
    const qsizetype lengthA = endA - i;
    const qsizetype lengthB = endB - j;
    int result = lengthA < lengthB ? -1 : lengthA > lengthB ? 1 : 0;
    for (qsizetype k = 0; result == 0 && k < lengthA; ++k)
        result = a[i + k] < b[j + k] ? -1 : a[i + k] > b[j + k] ? 1 : 0;
    i = endA;
    j = endB;
    return result;
}

} // namespace

int compareVersionsNumerically(const QString& left, const QString& right) {
    return compareVersionsNumerically(left.toUcs4(), right.toUcs4());
}

int compareVersionsNumerically(const QList<uint>& a, const QList<uint>& b) {
    qsizetype i = 0;
    qsizetype j = 0;
    while (i < a.size() && j < b.size()) {
        if (isDigit(a[i]) && isDigit(b[j])) {
            if (const int result = compareDigitRuns(a, i, b, j))
                return result;
            continue;
        }
        if (a[i] != b[j])
            return a[i] < b[j] ? -1 : 1;
        ++i;
        ++j;
    }
    const bool leftDone = i >= a.size();
    const bool rightDone = j >= b.size();
    return leftDone == rightDone ? 0 : leftDone ? -1 : 1;
}
