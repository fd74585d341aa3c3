#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QJsonValue>
#include <QString>

#include <optional>

// A staged release: the optional manifest member "rollout" offers the release to a share of the
// installations only, so that a bad build reaches few players before it is halted.
//
//   "rollout": {"percent": 10}
//       10 % of the installations, until the publisher raises or halts it;
//   "rollout": {"percent": 10, "start": "2026-12-01T09:00:00Z", "hours": 48}
//       nobody before the start, then a share growing evenly from 10 % at the start to 100 %
//       48 hours later.
//
// "percent" 0 halts a rollout: nobody else gets the release, and nobody who has it loses it.
// A member of the wrong type, a percentage outside 0 to 100, a start without "hours" or in
// another form, or "hours" that is not above 0 is ignored like any key a launcher does not know:
// the release is offered to all, as a launcher that predates rollouts would take it.
struct Rollout {
    double percent = 100;
    std::optional<QDateTime> start;
    double hours = 0;

    // The member read from a manifest's "rollout" value; nothing when it is absent or malformed.
    static std::optional<Rollout> from(const QJsonValue& member);
    // The member's value as JSON, as `from` reads it back.
    QByteArray encode() const;

    // The share of installations, 0 to 100, offered the release at `now`.
    double shareAt(const QDateTime& now) const;
    // Whether an installation whose place is `place` (0 up to 100, drawn once per installation)
    // is offered the release at `now`.
    bool offers(double place, const QDateTime& now) const { return place < shareAt(now); }
    // One line for publishers: "10 % of installations", "halted: offered to no more
    // installations", or the growth with its moments.
    QString describe(const QDateTime& now) const;

    bool operator==(const Rollout&) const = default;
};
