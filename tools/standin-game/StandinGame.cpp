// A stand-in for the game: it shows its version and the invite it was given, stays up until it is
// closed, and exits 0. With a display it opens a small window; without one it runs in the
// terminal until it receives SIGINT, SIGTERM or SIGHUP.
//
// When ZENTHO_STANDIN_RECORD names a file, it first writes there what it was started with: its
// version, working folder and each argument, one per line, prefixed by "version=", "cwd=" and
// "arg=". That is how tests and the demo see what the launcher handed over.

#include <QFile>
#include <QGuiApplication>
#include <QPainter>
#include <QRasterWindow>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

namespace {

const char* const kVersion = ZENTHO_GAME_VERSION;

void record(int argc, char** argv) {
    const char* path = std::getenv("ZENTHO_STANDIN_RECORD");
    if (!path || !*path)
        return;
    QByteArray text = QByteArray("version=") + kVersion + "\n";
    char cwd[4096];
    text += QByteArray("cwd=") + (::getcwd(cwd, sizeof cwd) ? cwd : "?") + "\n";
    for (int i = 1; i < argc; ++i)
        text += QByteArray("arg=") + argv[i] + "\n";
    text += "pid=" + QByteArray::number(::getpid()) + "\n";
    QFile file(QFile::decodeName(path));
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        file.write(text);
}

bool hasDisplay() {
    const char* platform = std::getenv("QT_QPA_PLATFORM");
    if (platform && *platform)
        return std::string(platform) != "offscreen" && std::string(platform) != "minimal";
    return std::getenv("DISPLAY") || std::getenv("WAYLAND_DISPLAY");
}

int runInTerminal(const QString& invite) {
    std::printf("ZENTHO %s\n%s\n", kVersion,
                invite.isEmpty() ? "No invite." : qPrintable(QStringLiteral("Invite: ") + invite));
    std::fflush(stdout);
    sigset_t closers;
    sigemptyset(&closers);
    sigaddset(&closers, SIGINT);
    sigaddset(&closers, SIGTERM);
    sigaddset(&closers, SIGHUP);
    sigprocmask(SIG_BLOCK, &closers, nullptr);
    int received = 0;
    sigwait(&closers, &received);
    return 0;
}

class GameWindow : public QRasterWindow {
public:
    explicit GameWindow(QString invite) : invite_(std::move(invite)) {
        setTitle(QStringLiteral("ZENTHO"));
        resize(420, 160);
    }

protected:
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        painter.fillRect(QRect(0, 0, width(), height()), QColor::fromRgbF(0.02f, 0.075f, 0.04f));
        painter.setPen(QColor::fromRgbF(0.72f, 1.0f, 0.2f));
        QFont font = painter.font();
        font.setPixelSize(28);
        font.setBold(true);
        painter.setFont(font);
        painter.drawText(QRect(0, 20, width(), 40), Qt::AlignCenter,
                         QStringLiteral("ZENTHO %1").arg(QLatin1String(kVersion)));
        font.setPixelSize(14);
        font.setBold(false);
        painter.setFont(font);
        painter.setPen(Qt::white);
        painter.drawText(QRect(10, 80, width() - 20, 60), Qt::AlignCenter | Qt::TextWordWrap,
                         invite_.isEmpty() ? QStringLiteral("No invite.")
                                           : QStringLiteral("Invite: ") + invite_);
    }

private:
    QString invite_;
};

} // namespace

int main(int argc, char** argv) {
    record(argc, argv);
    const QString invite = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QString();
    if (!hasDisplay())
        return runInTerminal(invite);
    QGuiApplication app(argc, argv);
    GameWindow window(invite);
    window.show();
    app.exec();
    return 0;
}
