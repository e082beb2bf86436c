// A desktop notification service for the end-to-end test: owns org.freedesktop.Notifications on
// the bus given, answers Notify with increasing ids and prints each call as one line,
// "app<TAB>title<TAB>body<TAB>timeout", after a first line "ready".
// Usage: notification_recorder BUS_ADDRESS

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusError>
#include <QDBusMessage>
#include <QDBusVirtualObject>
#include <QStringList>
#include <QVariantMap>
#include <cstdio>

namespace {

const char* const kService = "org.freedesktop.Notifications";
const char* const kPath = "/org/freedesktop/Notifications";

// One field per column: a tab or a line break inside a text would split the record.
QByteArray field(const QVariant& value) {
    QByteArray text = value.toString().toUtf8();
    text.replace('\t', "\\t").replace('\n', "\\n");
    return text;
}

class Recorder : public QDBusVirtualObject {
public:
    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override {
        const QString member = message.member();
        const QList<QVariant> args = message.arguments();
        if (member == "Notify" && args.size() == 8) {
            std::printf("%s\t%s\t%s\t%s\n", field(args[0]).constData(), field(args[3]).constData(),
                        field(args[4]).constData(), field(args[7]).constData());
            std::fflush(stdout);
            connection.send(message.createReply(++lastId_));
            return true;
        }
        if (member == "GetCapabilities") {
            connection.send(message.createReply(QStringList{"body"}));
            return true;
        }
        if (member == "GetServerInformation") {
            connection.send(message.createReply(
                QList<QVariant>{"notification_recorder", "velmor tests", "1.0", "1.2"}));
            return true;
        }
        if (member == "CloseNotification") {
            connection.send(message.createReply());
            return true;
        }
        return false;
    }
    QString introspect(const QString&) const override { return {}; }

private:
    uint lastId_ = 0;
};

}  // namespace

int main(int argc, char* argv[]) {
    QCoreApplication application(argc, argv);
    if (argc != 2) {
        std::fprintf(stderr, "usage: notification_recorder BUS_ADDRESS\n");
        return 2;
    }
    QDBusConnection bus = QDBusConnection::connectToBus(QString::fromLocal8Bit(argv[1]), "bus");
    if (!bus.isConnected()) {
        std::fprintf(stderr, "cannot reach the bus: %s\n",
                     bus.lastError().message().toLocal8Bit().constData());
        return 1;
    }
    Recorder recorder;
    if (!bus.registerVirtualObject(kPath, &recorder) || !bus.registerService(kService)) {
        std::fprintf(stderr, "cannot own %s: %s\n", kService,
                     bus.lastError().message().toLocal8Bit().constData());
        return 1;
    }
    std::printf("ready\n");
    std::fflush(stdout);
    return application.exec();
}
