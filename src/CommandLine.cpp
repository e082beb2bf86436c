#include "CommandLine.h"

#include <QCommandLineParser>
#include <QCoreApplication>

namespace vlm {

namespace {
bool nonZero(const QCommandLineParser& parser, const QString& name) {
    // Text that is not a number reads as 0, so "--serverd yes" means no.
    return parser.value(name).toInt(nullptr, 10) != 0;
}
}  // namespace

void parseCommandLine(QCoreApplication& application, bool& engineServer, bool& consoleEngineServer,
                      bool& master, std::int64_t& agentPid) {
    QCommandLineParser parser;
    for (const char* name : {"server", "serverd", "master", "apid"})
        parser.addOption(QCommandLineOption(QString::fromLatin1(name), QString(),
                                            QString::fromLatin1(name), QString()));
    parser.process(application);

    if (parser.isSet("server"))
        engineServer = nonZero(parser, "server");
    else if (parser.isSet("serverd"))
        consoleEngineServer = nonZero(parser, "serverd");
    if (parser.isSet("master"))
        master = nonZero(parser, "master");
    if (parser.isSet("apid"))
        agentPid = parser.value("apid").toInt(nullptr, 10);
}

}  // namespace vlm
