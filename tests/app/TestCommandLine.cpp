// How the launcher reads its command line: the link, --help, --version and what it refuses.

#include "app/CommandLine.h"

#include <QTest>

using Action = CommandLine::Action;

Q_DECLARE_METATYPE(CommandLine::Action)

class TestCommandLine : public QObject {
    Q_OBJECT

private slots:
    void parse_data() {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<Action>("action");
        QTest::addColumn<QString>("invite");
        QTest::addColumn<QString>("problem");
        const QString link = QStringLiteral("zentho://join/abc");
        QTest::newRow("nothing") << QStringList{} << Action::Run << "" << "";
        QTest::newRow("link") << QStringList{link} << Action::Run << link << "";
        QTest::newRow("first link wins") << QStringList{link, "zentho://other"} << Action::Run << link << "";
        QTest::newRow("link after --") << QStringList{"--", link} << Action::Run << link << "";
        QTest::newRow("dash link after --") << QStringList{"--", "-x y"} << Action::Run << "-x y" << "";
        QTest::newRow("--help after -- is a link") << QStringList{"--", "--help"} << Action::Run << "--help" << "";
        QTest::newRow("help") << QStringList{"--help"} << Action::Help << "" << "";
        QTest::newRow("short help") << QStringList{"-h"} << Action::Help << "" << "";
        QTest::newRow("help after a link") << QStringList{link, "--help"} << Action::Help << link << "";
        QTest::newRow("version") << QStringList{"--version"} << Action::Version << "" << "";
        QTest::newRow("first option decides") << QStringList{"--version", "--help"} << Action::Version << "" << "";
        QTest::newRow("integrate") << QStringList{"--integrate"} << Action::Integrate << "" << "";
        QTest::newRow("uninstall") << QStringList{"--uninstall"} << Action::Uninstall << "" << "";
        QTest::newRow("uninstall after a link") << QStringList{link, "--uninstall"} << Action::Uninstall << link << "";
        QTest::newRow("verify") << QStringList{"--verify"} << Action::Verify << "" << "";
        QTest::newRow("verify one") << QStringList{"--verify", "0.3.1"} << Action::Verify << "" << "";
        QTest::newRow("repair") << QStringList{"--repair", "0.3.1"} << Action::Repair << "" << "";
        QTest::newRow("--integrate after -- is a link") << QStringList{"--", "--integrate"} << Action::Run
                                                        << "--integrate" << "";
        QTest::newRow("unknown") << QStringList{"--bogus"} << Action::Invalid << ""
                                 << "unknown option \"--bogus\" (see --help)";
        QTest::newRow("a dash link needs --") << QStringList{"-x"} << Action::Invalid << ""
                                              << "unknown option \"-x\" (see --help)";
        QTest::newRow("Qt's options are not ours") << QStringList{"-platform", "offscreen"} << Action::Invalid
                                                   << "" << "unknown option \"-platform\" (see --help)";
        QTest::newRow("lone dash") << QStringList{"-"} << Action::Invalid << ""
                                   << "unknown option \"-\" (see --help)";
        QTest::newRow("unknown before help") << QStringList{"--bogus", "--help"} << Action::Invalid << ""
                                             << "unknown option \"--bogus\" (see --help)";
    }
    void parse() {
        QFETCH(QStringList, arguments);
        QFETCH(Action, action);
        QFETCH(QString, invite);
        QFETCH(QString, problem);
        const CommandLine command = CommandLine::parse(QStringList{QStringLiteral("/x/ZenthoLauncher")} + arguments);
        QCOMPARE(command.action, action);
        QCOMPARE(command.invite, invite);
        QCOMPARE(command.problem, problem);
        QVERIFY(!command.problem.contains(QLatin1Char('\n')));
    }

    // The build --verify checks is the argument after it, when that is not an option.
    void verifyTakesTheVersionAfterIt_data() {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("version");
        QTest::newRow("all") << QStringList{"--verify"} << "";
        QTest::newRow("one") << QStringList{"--verify", "0.3.1"} << "0.3.1";
        QTest::newRow("an option is not a version") << QStringList{"--verify", "--help"} << "";
        QTest::newRow("a link before it is not one") << QStringList{"zentho://join/x", "--verify"} << "";
    }
    void verifyTakesTheVersionAfterIt() {
        QFETCH(QStringList, arguments);
        QFETCH(QString, version);
        const CommandLine command = CommandLine::parse(QStringList{QStringLiteral("/x/ZenthoLauncher")} + arguments);
        QCOMPARE(command.action, Action::Verify);
        QCOMPARE(command.version, version);
    }

    void usageNamesTheLinkTheOptionsAndTheEnvironment() {
        const QString usage = CommandLine::usage(QStringLiteral("zentho-launcher"));
        QVERIFY(usage.startsWith(QStringLiteral("Usage: zentho-launcher [LINK]\n")));
        for (const char* word : {"LINK", "--help", "--version", "--integrate", "--uninstall", "--verify [VERSION]", "--repair [VERSION]",
                                 "CMakeCache.txt", "ZENTHO_UPDATE_MANIFEST", "ZENTHO_LAUNCHER_UPDATE_MANIFEST"})
            QVERIFY2(usage.contains(QLatin1String(word)), word);
        QVERIFY(usage.endsWith(QLatin1Char('\n')));
        // The name it was started by, whatever that was.
        QVERIFY(CommandLine::usage(QStringLiteral("ZenthoLauncher")).startsWith(QStringLiteral("Usage: ZenthoLauncher ")));
        for (const QString& line : usage.split(QLatin1Char('\n')))
            QVERIFY2(line.size() <= 80, qPrintable(line));
    }
};

QTEST_APPLESS_MAIN(TestCommandLine)
#include "TestCommandLine.moc"
