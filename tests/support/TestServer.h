#pragma once

#include <QByteArray>
#include <QList>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <QUrl>

#include <memory>

class FaultServer;

// A real nginx (/usr/sbin/nginx, run as a child process with master_process off, everything
// under its own temporary prefix) serving HTTPS on 127.0.0.1 with a test CA made at run time by
// the openssl CLI, plus a plain-HTTP listener over the same content. Only loopback is used.
//
// Paths, the same on both listeners:
//   /<path>                 the file <path> of documentRoot(), which the test fills
//   /status/<code>/<path>   that file's bytes with status <code>: 200 204 206 304 404 500
//                           407 (nginx sends no body with 204 and 304)
//   /html                   status 200 with an HTML page, as a captive portal would answer
//   /drip/<path>            the file at 1 KiB/s
//   /trickle/<path>         the file at 4 KiB/s: above the throughput floor, never quick
//   /rate50m/<path>         the file at 50 MiB/s, a fast home link
//   /rate8m/<path>          the file at 8 MiB/s a request: a sixth of that link for each of
//                           six requests at once
//   /throttle/<path>        the file at 1 MiB/s
//   /norange/<path>         the file at 1 MiB/s, always whole: Range is ignored
//   /onerange/<path>        the file, one range a request: several ranges get it whole
//   /stall                  status 200, 64 KiB of body, then nothing for an hour
//   /silent                 the request is read and never answered, not even with headers
//   /redirect/https/<path>  302 to url(<path>) (https)
//   /redirect/http/<path>   302 to httpUrl(<path>) (a step down to plain http)
//   /redirect/loop          302 to itself, forever
//   /mark/<anything>        204: a request that only marks the access log (see awaitLogged())
//   /fault/...              FaultServer's bodies, passed through unbuffered (see FaultServer.h)
// HTTPS only:
//   /truncated              status 200, Content-Length 1048576, connection closed after at
//                           most truncatedBytesOnDisk() bytes of body
//
// edgeUrl(<path>) reaches the same documentRoot() through a CDN's stand-in (nginx proxy_cache,
// HTTPS) in front of an origin that sends the release server's cache headers
// (tools/nginx/release-cache.conf) and logs to originLog(), answering 503 beyond
// `originConnections` connections at once when that is given and, while setOriginBusy(true)
// holds, sending each answer at no more than `originRate` (nginx limit_rate, "256k"): a busy
// origin on release day, whose connections stay taken long enough for refusals to happen;
// bareEdgeUrl(<path>) through the same cache in front of the plain listener, which sends none. The cache keeps what the origin's
// Cache-Control allows and, where it says nothing, every answer for ten minutes, "not found"
// included, as CDNs do by default; X-Cache-Status says HIT, MISS...
//
// Trust: a unit test calls trustInThisProcess() (adds the CA to Qt's default SSL
// configuration). A real binary is run with commandTrustingCa(): under `unshare -m` with a
// prepared folder bind-mounted over /etc/ssl/certs (the CA, its `openssl rehash` link and a
// copy named ca-certificates.crt). The CA is made once per process and shared by all servers.
//
// The HTTPS listener speaks HTTP/1.1 only unless the server is made with Http2::Offered: then it
// also offers HTTP/2 through ALPN, as release servers commonly do, and ends a connection after 100
// requests (GOAWAY in HTTP/2), as servers do after so many.
//
// The constructor throws std::runtime_error when nginx cannot be started; the destructor stops
// it.
class TestServer {
public:
    enum class Http2 { Off, Offered };

    explicit TestServer(int originConnections = 0, const QString& originRate = {}, Http2 http2 = Http2::Off);
    ~TestServer();
    TestServer(const TestServer&) = delete;
    TestServer& operator=(const TestServer&) = delete;

    // `path` starts with "/".
    QUrl url(const QString& path) const;
    QUrl httpUrl(const QString& path) const;
    QUrl edgeUrl(const QString& path) const;
    QUrl bareEdgeUrl(const QString& path) const;
    quint16 httpsPort() const { return httpsPort_; }
    quint16 httpPort() const { return httpPort_; }

    QString documentRoot() const;
    // Writes `bytes` to documentRoot()/<relativePath>, creating folders; returns the file path.
    QString writeFile(const QString& relativePath, const QByteArray& bytes) const;

    static qint64 truncatedBytesOnDisk() { return 200000; }
    static qint64 truncatedContentLength() { return 1048576; }

    static QString caPath();
    static void trustInThisProcess();

    // A folder fit to be bind-mounted over /etc/ssl/certs so that a real binary trusts the CA.
    QString trustedCertFolder() const;
    // Program and arguments that run `program` with `arguments` in a private mount namespace
    // whose /etc/ssl/certs is trustedCertFolder(). Needs root, which the test machine has.
    QStringList commandTrustingCa(const QString& program, const QStringList& arguments) const;

    const FaultServer& faultServer() const { return *fault_; }

    // nginx's error log so far, for failure messages.
    QString errorLog() const;
    // nginx's access log so far: one line per request, with its request line (which names the
    // protocol, "HTTP/2.0" for HTTP/2), status, body bytes sent, Range, If-Range and the serial
    // number of the connection it came on.
    QString accessLog() const;
    // The access log of the origin behind /edge/, in the same form.
    QString originLog() const;
    // From the next request on, the origin sends at `originRate` (busy) or as fast as it can.
    void setOriginBusy(bool busy) const;
    // Returns once the access log holds the line of every request nginx answered before the call.
    // A client has an answer as soon as nginx has sent it, but nginx writes the line only after
    // that, so right after a transfer its line may be missing yet; this sends a request of its own
    // and waits for that request's line. nginx runs as one process that handles one event at a
    // time and writes a request's line in the same turn as the last of its answer, so the lines
    // of everything answered before are in the log by then.
    void awaitLogged() const;
    // The GETs of `path` the access log holds so far, in order.
    struct Served {
        QString range; // empty when none was asked for
        int status = 0;
        qint64 bytes = 0;
    };
    QList<Served> servedFor(const QString& path) const;

    // A loopback port on which nothing listened a moment ago: connecting is refused.
    static quint16 unusedLocalPort();

private:
    bool tryStart(QString& failure);
    QString configuration() const;
    // The file `name` of nginx's logs folder, so far.
    QString log(const QString& name) const;
    void primeTruncatedFile();

    Http2 http2_;
    std::unique_ptr<FaultServer> fault_;
    QTemporaryDir prefix_;
    QProcess nginx_;
    quint16 httpsPort_ = 0;
    quint16 httpPort_ = 0;
    int originConnections_ = 0;
    QString originRate_;
    quint16 originPort_ = 0;
    quint16 edgePort_ = 0;
    quint16 bareEdgePort_ = 0;
};
