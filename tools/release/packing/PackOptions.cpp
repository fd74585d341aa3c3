#include "PackOptions.h"

#include "ReleaseCommand.h"
#include "ReleaseFiles.h"
#include "ReleaseOptions.h"

#include <QUrl>

#include <exception>

namespace {

// A signed manifest may be valid for at most ten years: long enough for anyone, short enough to
// catch a number typed in the wrong unit.
constexpr int kMostDays = 3650;

QString text(const std::string& value) {
    return QString::fromStdString(value);
}

int parseDays(const std::string& value) {
    std::size_t used = 0;
    int days = 0;
    try {
        days = std::stoi(value, &used);
    } catch (const std::exception&) {
        used = 0;
    }
    if (used != value.size() || value.empty() || value[0] == '+' || days < 1 || days > kMostDays)
        throw UsageError("--expires-in must be a whole number of days from 1 to " +
                         std::to_string(kMostDays) + ", not \"" + value + "\"");
    return days;
}

// --chunk-average: a power of two that keeps chunks between a page and what a launcher holds in
// memory at once; the bounds around it are the default's proportions.
ChunkSizes parseChunkAverage(const std::string& value) {
    std::size_t used = 0;
    long long average = 0;
    try {
        average = std::stoll(value, &used);
    } catch (const std::exception&) {
        used = 0;
    }
    if (used != value.size() || value.empty() || value[0] == '+' || average < 4096 || average > 1048576 ||
        (average & (average - 1)) != 0)
        throw UsageError("--chunk-average must be a power of two from 4096 to 1048576, not \"" + value + "\"");
    const auto bytes = static_cast<std::size_t>(average);
    return ChunkSizes{bytes / 4, bytes, bytes * 4};
}

// An http or https address without query or fragment, without trailing "/".
QString baseAddress(const char* option, QString value) {
    while (value.endsWith(QLatin1Char('/')))
        value.chop(1);
    const QUrl base(value, QUrl::StrictMode);
    const QString scheme = base.scheme();
    if (!base.isValid() || (scheme != QLatin1String("https") && scheme != QLatin1String("http")) ||
        base.host().isEmpty() || base.hasQuery() || base.hasFragment())
        throw UsageError(std::string(option) + " must be an http or https address without query, not \"" +
                         value.toStdString() + "\"");
    return value;
}

} // namespace

PackOptions PackOptions::parse(const std::vector<std::string>& arguments) {
    const ReleaseOptions given(arguments,
                               {"--platform", "--version", "--executable", "--url-base", "--out",
                                "--key", "--sign-key", "--expires-in", "--chunks", "--chunks-url", "--chunk-average", "--delta-from"},
                               {"--force", "--dry-run", "--compressed-index", "--chunk-pack"});
    PackOptions options;
    options.platform = text(given.required("--platform", "P"));
    options.version = text(given.required("--version", "V"));
    options.executable = text(given.required("--executable", "E"));
    options.urlBase = text(given.required("--url-base", "URL"));
    options.out = text(given.one("--out").value_or("."));
    options.force = given.has("--force");
    options.dryRun = given.has("--dry-run");
    options.sealKeys = given.all("--key");
    options.signKey = given.one("--sign-key");
    if (const std::optional<std::string> days = given.one("--expires-in")) {
        if (!options.signKey)
            throw UsageError("--expires-in needs --sign-key: only a signed manifest can expire");
        options.expiresInDays = parseDays(*days);
    }
    options.chunkStore = text(given.one("--chunks").value_or(std::string()));
    options.chunkStoreUrl = text(given.one("--chunks-url").value_or(std::string()));
    if (options.chunkStore.isEmpty() != options.chunkStoreUrl.isEmpty())
        throw UsageError("--chunks STORE_DIR and --chunks-url URL go together");
    if (const std::optional<std::string> average = given.one("--chunk-average")) {
        if (options.chunkStore.isEmpty())
            throw UsageError("--chunk-average needs --chunks STORE_DIR");
        options.chunkSizes = parseChunkAverage(*average);
    }
    options.compressedIndex = given.has("--compressed-index");
    if (options.compressedIndex && options.chunkStore.isEmpty())
        throw UsageError("--compressed-index needs --chunks STORE_DIR");
    options.chunkPack = given.has("--chunk-pack");
    if (options.chunkPack && options.chunkStore.isEmpty())
        throw UsageError("--chunk-pack needs --chunks STORE_DIR");
    options.deltaFrom = text(given.one("--delta-from").value_or(std::string()));
    if (!options.deltaFrom.isEmpty() && !options.chunkPack)
        throw UsageError("--delta-from needs --chunk-pack: deltas live in the pack");
    if (given.operands().size() > 1)
        throw UsageError("more than one SRC given");
    if (given.operands().empty() || given.operands().front().empty())
        throw UsageError("SRC is missing");
    options.source = text(given.operands().front());

    if (!ReleaseFiles::isKnownPlatform(options.platform))
        throw UsageError("--platform must be macos-arm64 or macos-launcher-arm64, not \"" +
                         options.platform.toStdString() + "\"");
    if (const QString problem = ReleaseFiles::versionProblem(options.version); !problem.isEmpty())
        throw UsageError("--version: " + problem.toStdString());
    if (const QString problem = ReleaseFiles::relativePathProblem(options.executable);
        !problem.isEmpty())
        throw UsageError("--executable: " + problem.toStdString());
    options.urlBase = baseAddress("--url-base", options.urlBase);
    if (!options.chunkStore.isEmpty())
        options.chunkStoreUrl = baseAddress("--chunks-url", options.chunkStoreUrl);
    return options;
}

