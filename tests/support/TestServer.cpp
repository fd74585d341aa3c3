#include "TestServer.h"

#include "FaultServer.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QSslSocket>
#include <QTcpServer>
#include <QTcpSocket>
#include <QThread>

#include <csignal>
#include <memory>
#include <stdexcept>
#include <algorithm>
#include <array>

#include <sys/prctl.h>

namespace {

const QString nginxProgram = QStringLiteral("/usr/sbin/nginx");
const QString echoModule = QStringLiteral("/usr/lib/nginx/modules/ngx_http_echo_module.so");
const QString loopback = QStringLiteral("127.0.0.1");

[[noreturn]] void fail(const QString& what) {
    throw std::runtime_error(what.toStdString());
}

void runTool(const QString& program, const QStringList& arguments, const QString& folder) {
    QProcess process;
    process.setWorkingDirectory(folder);
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, arguments);
    if (!process.waitForFinished(60000) || process.exitStatus() != QProcess::NormalExit ||
        process.exitCode() != 0) {
        fail(program + QLatin1Char(' ') + arguments.join(QLatin1Char(' ')) +
             QStringLiteral(" failed: ") + QString::fromLocal8Bit(process.readAll()) +
             process.errorString());
    }
}

void writeText(const QString& path, const QByteArray& bytes) {
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(bytes) != bytes.size())
        fail(QStringLiteral("could not write ") + path);
}

// The process-wide test CA and the server certificate it signs for 127.0.0.1 and localhost.
struct Certificates {
    QTemporaryDir folder;
    QString ca() const { return folder.filePath(QStringLiteral("ca.pem")); }
    QString serverCertificate() const { return folder.filePath(QStringLiteral("server.pem")); }
    QString serverKey() const { return folder.filePath(QStringLiteral("server.key")); }

    Certificates() {
        if (!folder.isValid())
            fail(QStringLiteral("no temporary folder for the test CA"));
        const QString dir = folder.path();
        const QString openssl = QStringLiteral("openssl");
        runTool(openssl,
                {"req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
                 "-nodes", "-keyout", "ca.key", "-out", "ca.pem", "-days", "2", "-subj",
                 "/CN=ZENTHO Test CA", "-addext", "basicConstraints=critical,CA:TRUE",
                 "-addext", "keyUsage=critical,keyCertSign,cRLSign"},
                dir);
        runTool(openssl,
                {"req", "-new", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
                 "-nodes", "-keyout", "server.key", "-out", "server.csr", "-subj",
                 "/CN=127.0.0.1"},
                dir);
        writeText(folder.filePath(QStringLiteral("server.ext")),
                  "basicConstraints=critical,CA:FALSE\n"
                  "keyUsage=critical,digitalSignature\n"
                  "extendedKeyUsage=serverAuth\n"
                  "subjectAltName=IP:127.0.0.1,DNS:localhost\n");
        runTool(openssl,
                {"x509", "-req", "-in", "server.csr", "-CA", "ca.pem", "-CAkey", "ca.key",
                 "-CAcreateserial", "-out", "server.pem", "-days", "2", "-extfile",
                 "server.ext"},
                dir);
    }
};

const Certificates& certificates() {
    static const auto made = std::make_unique<Certificates>();
    return *made;
}

// Five distinct free loopback ports, released just before nginx binds them.
std::array<quint16, 5> fiveFreePorts() {
    std::array<QTcpServer, 5> probes;
    std::array<quint16, 5> ports{};
    for (std::size_t i = 0; i < probes.size(); ++i) {
        if (!probes[i].listen(QHostAddress::LocalHost))
            fail(QStringLiteral("no free loopback port"));
        ports[i] = probes[i].serverPort();
    }
    return ports;
}

bool accepts(quint16 port) {
    QTcpSocket socket;
    socket.connectToHost(loopback, port);
    return socket.waitForConnected(200);
}

} // namespace

TestServer::TestServer(int originConnections, const QString& originRate, Http2 http2)
    : http2_(http2), fault_(std::make_unique<FaultServer>()), originConnections_(originConnections),
      originRate_(originRate) {
    if (!prefix_.isValid())
        fail(QStringLiteral("no temporary folder for nginx"));
    for (const char* sub : {"logs", "tmp", "www", "fixtures"})
        QDir(prefix_.path()).mkpath(QString::fromLatin1(sub));
    certificates();
    fault_->setFileRoot(documentRoot());

    QString failure;
    for (int attempt = 0; attempt < 5; ++attempt) {
        if (tryStart(failure)) {
            primeTruncatedFile();
            return;
        }
    }
    fail(QStringLiteral("nginx did not start: ") + failure);
}

TestServer::~TestServer() {
    if (nginx_.state() == QProcess::NotRunning)
        return;
    nginx_.terminate();
    if (!nginx_.waitForFinished(5000)) {
        nginx_.kill();
        nginx_.waitForFinished(5000);
    }
}

bool TestServer::tryStart(QString& failure) {
    const std::array<quint16, 5> ports = fiveFreePorts();
    httpsPort_ = ports[0];
    httpPort_ = ports[1];
    originPort_ = ports[2];
    edgePort_ = ports[3];
    bareEdgePort_ = ports[4];
    const QString conf = prefix_.filePath(QStringLiteral("nginx.conf"));
    writeText(conf, configuration().toUtf8());
    writeText(prefix_.filePath(QStringLiteral("fixtures/truncated.bin")),
              QByteArray(int(truncatedContentLength()), 'z'));
    QFile::remove(prefix_.filePath(QStringLiteral("logs/error.log")));

    nginx_.setProcessChannelMode(QProcess::MergedChannels);
    // nginx goes with the test even when the test is killed (a ctest timeout) before it can stop
    // it, so no test leaves a server running.
    nginx_.setChildProcessModifier([] { ::prctl(PR_SET_PDEATHSIG, SIGKILL); });
    nginx_.start(nginxProgram, {"-p", prefix_.path(), "-c", conf, "-e",
                                prefix_.filePath(QStringLiteral("logs/error.log"))});
    if (!nginx_.waitForStarted(60000)) {
        failure = nginx_.errorString();
        return false;
    }
    const QDeadlineTimer deadline(60000);
    while (!deadline.hasExpired()) {
        if (nginx_.state() == QProcess::NotRunning || nginx_.waitForFinished(50)) {
            failure = QString::fromLocal8Bit(nginx_.readAll()) + errorLog();
            return false;
        }
        if (std::all_of(ports.begin(), ports.end(), accepts))
            return true;
    }
    failure = QStringLiteral("nginx did not listen within a minute: ") + errorLog();
    nginx_.kill();
    nginx_.waitForFinished(5000);
    return false;
}

QString TestServer::configuration() const {
    const QString root = prefix_.path();
    const QString httpsBase = url(QString()).toString();
    const QString httpBase = httpUrl(QString()).toString();

    // Shared by both listeners; `$scheme_base` is the listener's own origin.
    QString locations =
        "        root " + root + "/www;\n"
        "        location = /html {\n"
        "            default_type text/html;\n"
        "            return 200 \"<!DOCTYPE html><html><body><h1>Welcome</h1></body></html>\";\n"
        "        }\n"
        "        location ^~ /drip/ { alias " + root + "/www/; limit_rate 1k; }\n"
        "        location ^~ /trickle/ { alias " + root + "/www/; limit_rate 4k; }\n"
        "        location ^~ /rate50m/ { alias " + root + "/www/; limit_rate 50m; }\n"
        "        location ^~ /rate8m/ { alias " + root + "/www/; limit_rate 8m; }\n"
        "        location ^~ /throttle/ { alias " + root + "/www/; limit_rate 1m; }\n"
        "        location ^~ /norange/ { alias " + root + "/www/; limit_rate 1m; max_ranges 0; }\n"
        "        location ^~ /onerange/ { alias " + root + "/www/; max_ranges 1; }\n"
        "        location ^~ /fault/ {\n"
        "            proxy_pass http://" + loopback + ":" + QString::number(fault_->port()) + ";\n"
        "            proxy_http_version 1.1; proxy_buffering off; proxy_read_timeout 120s;\n"
        "        }\n"
        "        location = /stall {\n"
        "            echo_duplicate 65536 \"s\"; echo_flush; echo_sleep 3600; echo \"end\";\n"
        "        }\n"
        "        location = /silent { echo_sleep 3600; echo \"end\"; }\n"
        "        location ^~ /redirect/https/ {\n"
        "            rewrite ^/redirect/https/(.*)$ " + httpsBase + "/$1 redirect;\n"
        "        }\n"
        "        location ^~ /redirect/http/ {\n"
        "            rewrite ^/redirect/http/(.*)$ " + httpBase + "/$1 redirect;\n"
        "        }\n"
        "        location = /redirect/loop { return 302 $scheme://$http_host/redirect/loop; }\n"
        "        location ^~ /mark/ { return 204; }\n";
    for (const char* code : {"200", "204", "206", "304", "404", "407", "500"}) {
        const QString c = QString::fromLatin1(code);
        locations += "        location ^~ /status/" + c + "/ {\n"
                     "            rewrite ^/status/" + c + "(/.*)$ $1 break;\n"
                     "            echo_status " + c + "; echo_location $uri;\n"
                     "        }\n";
    }

    const Certificates& certs = certificates();
    const QString tls = "        ssl_certificate " + certs.serverCertificate() + ";\n"
                        "        ssl_certificate_key " + certs.serverKey() + ";\n"
                        "        ssl_protocols TLSv1.2 TLSv1.3;\n";
    // A CDN's stand-in: a cache that keeps what the origin's headers allow and, where they say
    // nothing, every answer for ten minutes, "not found" included.
    const auto edge = [&](quint16 port, quint16 origin) {
        return "    server {\n"
               "        listen " + loopback + ":" + QString::number(port) + " ssl;\n" + tls +
               "        location / {\n"
               "            proxy_pass http://" + loopback + ":" + QString::number(origin) + ";\n"
               "            proxy_cache edge; proxy_cache_lock on; proxy_cache_valid any 10m;\n"
               "            proxy_http_version 1.1; add_header X-Cache-Status $upstream_cache_status;\n"
               "        }\n"
               "    }\n";
    };
    return "load_module " + echoModule + ";\n"
           "daemon off;\n"
           "master_process off;\n"
           "pid " + root + "/nginx.pid;\n"
           "error_log " + root + "/logs/error.log info;\n"
           "events { worker_connections 256; }\n"
           "http {\n"
           "    log_format served '$remote_addr [$time_local] \"$request\" $status $body_bytes_sent '\n"
           "                      '\"$http_range\" \"$http_if_range\" $connection';\n"
           "    access_log " + root + "/logs/access.log served;\n"
           "    client_body_temp_path " + root + "/tmp/body;\n"
           "    proxy_temp_path " + root + "/tmp/proxy;\n"
           "    fastcgi_temp_path " + root + "/tmp/fastcgi;\n"
           "    uwsgi_temp_path " + root + "/tmp/uwsgi;\n"
           "    scgi_temp_path " + root + "/tmp/scgi;\n"
           "    default_type application/octet-stream;\n"
           "    proxy_cache_path " + root + "/cache keys_zone=edge:4m levels=1:2 use_temp_path=off;\n"
           "    include " ZENTHO_RELEASE_CACHE_CONF ";\n"
           "    limit_conn_zone $server_port zone=origin:1m;\n"
           "    server {\n"
           "        listen " + loopback + ":" + QString::number(originPort_) + ";\n"
           "        access_log " + root + "/logs/origin.log served;\n"
           "        root " + root + "/www;\n"
           "        add_header Cache-Control $zentho_cache_control always;\n" +
           (originConnections_ > 0 ? "        limit_conn origin " + QString::number(originConnections_) + ";\n"
                                   : QString()) +
           // The rate holds while the flag file is there, so a test can let the origin be quick
           // while it sets up and busy when the rush comes.
           (originRate_.isEmpty() ? QString()
                                  : "        set $origin_rate 0;\n"
                                    "        if (-f " + root + "/origin-busy) { set $origin_rate " + originRate_ + "; }\n"
                                    "        limit_rate $origin_rate;\n") +
           "    }\n" +
           edge(edgePort_, originPort_) + edge(bareEdgePort_, httpPort_) +
           "    server {\n"
           "        listen " + loopback + ":" + QString::number(httpsPort_) +
           (http2_ == Http2::Offered ? " ssl http2;\n"
                                       // As nginx does after 1000, but soon enough for a test to cross.
                                       "        keepalive_requests 100;\n"
                                     : " ssl;\n") +
           tls +
           // The size nginx announces comes from its file cache, primed while the file is
           // whole; the file is then cut, so the body ends early on a live connection.
           "        location = /truncated {\n"
           "            alias " + root + "/fixtures/truncated.bin;\n"
           "            open_file_cache max=4 inactive=1d; open_file_cache_valid 1d;\n"
           "        }\n" +
           locations +
           "    }\n"
           "    server {\n"
           "        listen " + loopback + ":" + QString::number(httpPort_) + ";\n" +
           locations +
           "    }\n"
           "}\n";
}

void TestServer::primeTruncatedFile() {
    QSslSocket socket;
    QSslConfiguration ssl = socket.sslConfiguration();
    ssl.setCaCertificates(QSslCertificate::fromPath(caPath()));
    socket.setSslConfiguration(ssl);
    socket.connectToHostEncrypted(loopback, httpsPort_);
    if (!socket.waitForEncrypted(60000))
        fail(QStringLiteral("could not prime /truncated: ") + socket.errorString());
    socket.write("GET /truncated HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n");
    QByteArray answer;
    while (socket.waitForReadyRead(60000))
        answer += socket.readAll();
    answer += socket.readAll();
    if (!answer.startsWith("HTTP/1.1 200") || answer.size() < truncatedContentLength())
        fail(QStringLiteral("could not prime /truncated: ") + QString::fromLatin1(answer.left(200)));
    QFile file(prefix_.filePath(QStringLiteral("fixtures/truncated.bin")));
    if (!file.resize(truncatedBytesOnDisk()))
        fail(QStringLiteral("could not cut the truncated fixture"));
}

QUrl TestServer::url(const QString& path) const {
    return QUrl(QStringLiteral("https://127.0.0.1:%1%2").arg(httpsPort_).arg(path));
}

QUrl TestServer::httpUrl(const QString& path) const {
    return QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(httpPort_).arg(path));
}

QUrl TestServer::edgeUrl(const QString& path) const {
    return QUrl(QStringLiteral("https://127.0.0.1:%1%2").arg(edgePort_).arg(path));
}

QUrl TestServer::bareEdgeUrl(const QString& path) const {
    return QUrl(QStringLiteral("https://127.0.0.1:%1%2").arg(bareEdgePort_).arg(path));
}

QString TestServer::documentRoot() const {
    return prefix_.filePath(QStringLiteral("www"));
}

QString TestServer::writeFile(const QString& relativePath, const QByteArray& bytes) const {
    const QString path = documentRoot() + QLatin1Char('/') + relativePath;
    writeText(path, bytes);
    return path;
}

QString TestServer::caPath() {
    return certificates().ca();
}

void TestServer::trustInThisProcess() {
    QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
    configuration.addCaCertificates(QSslCertificate::fromPath(caPath()));
    QSslConfiguration::setDefaultConfiguration(configuration);
}

QString TestServer::trustedCertFolder() const {
    const QString folder = prefix_.filePath(QStringLiteral("trusted-certs"));
    if (QFileInfo::exists(folder + QStringLiteral("/ca-certificates.crt")))
        return folder;
    QDir().mkpath(folder);
    const QString name = folder + QStringLiteral("/zentho-test-ca.pem");
    if (!QFile::copy(caPath(), name) ||
        !QFile::copy(caPath(), folder + QStringLiteral("/ca-certificates.crt")))
        fail(QStringLiteral("could not fill ") + folder);
    // rehash links <subject hash>.0 to each certificate, which is how OpenSSL looks a CA up.
    runTool(QStringLiteral("openssl"), {"rehash", folder}, folder);
    return folder;
}

QStringList TestServer::commandTrustingCa(const QString& program,
                                          const QStringList& arguments) const {
    QStringList command{QStringLiteral("/usr/bin/unshare"),
                        QStringLiteral("--mount"),
                        QStringLiteral("--propagation"),
                        QStringLiteral("private"),
                        QStringLiteral("/bin/sh"),
                        QStringLiteral("-c"),
                        QStringLiteral("mount --bind \"$0\" /etc/ssl/certs && exec \"$@\""),
                        trustedCertFolder(),
                        program};
    return command + arguments;
}

QString TestServer::log(const QString& name) const {
    QFile file(prefix_.filePath(QStringLiteral("logs/") + name));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QString::fromLocal8Bit(file.readAll());
}

void TestServer::setOriginBusy(bool busy) const {
    const QString flag = prefix_.filePath(QStringLiteral("origin-busy"));
    if (busy)
        writeText(flag, QByteArray());
    else
        QFile::remove(flag);
}

QString TestServer::originLog() const {
    return log(QStringLiteral("origin.log"));
}

QString TestServer::accessLog() const {
    return log(QStringLiteral("access.log"));
}

void TestServer::awaitLogged() const {
    static int serial = 0;
    const QByteArray mark = "/mark/" + QByteArray::number(++serial);
    QTcpSocket socket;
    socket.connectToHost(loopback, httpPort_);
    if (!socket.waitForConnected(60000))
        fail(QStringLiteral("could not mark the access log: ") + socket.errorString());
    socket.write("GET " + mark + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n");
    while (socket.waitForReadyRead(60000)) // until nginx has answered and closed
        socket.readAll();
    const QDeadlineTimer deadline(60000);
    while (!accessLog().contains(QString::fromLatin1("\"GET " + mark + " "))) {
        if (deadline.hasExpired())
            fail(QStringLiteral("nginx did not log ") + QString::fromLatin1(mark));
        QThread::msleep(5);
    }
}

QList<TestServer::Served> TestServer::servedFor(const QString& path) const {
    // 127.0.0.1 [time] "GET /path HTTP/1.1" 206 1234 "bytes=5-" "\"etag\""
    static const QRegularExpression line(QStringLiteral(
        "\"GET (\\S+) [^\"]*\" (\\d+) (\\d+) \"([^\"]*)\""));
    QList<Served> found;
    for (const QString& entry : accessLog().split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
        const QRegularExpressionMatch match = line.match(entry);
        if (match.hasMatch() && match.captured(1) == path)
            found.append({match.captured(4) == QLatin1String("-") ? QString() : match.captured(4),
                          match.captured(2).toInt(), match.captured(3).toLongLong()});
    }
    return found;
}

QString TestServer::errorLog() const {
    return log(QStringLiteral("error.log"));
}

quint16 TestServer::unusedLocalPort() {
    QTcpServer probe;
    if (!probe.listen(QHostAddress::LocalHost))
        fail(QStringLiteral("no free loopback port"));
    return probe.serverPort();
}
