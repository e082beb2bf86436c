// A desktop notification service for the end-to-end test: owns org.freedesktop.Notifications on
// the bus given, answers Notify with increasing ids and prints each call as one line,
// "app<TAB>icon<TAB>title<TAB>body<TAB>timeout", after a first line "ready". With --tray it is
// also a StatusNotifierItem tray (org.kde.StatusNotifierWatcher with a host), as a desktop
// with such a tray offers, and prints "item<TAB>service" for each icon registered.
// Usage: notification_recorder BUS_ADDRESS [--tray]

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusError>
#include <QDBusMessage>
#include <QDBusVariant>
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
            std::printf("%s\t%s\t%s\t%s\t%s\n", field(args[0]).constData(),
                        field(args[2]).constData(), field(args[3]).constData(),
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

// The watcher of a StatusNotifierItem tray, with its host registered: what Qt looks for before
// it shows its icon there.
class TrayWatcher : public QDBusVirtualObject {
public:
    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override {
        const QString member = message.member();
        const QList<QVariant> args = message.arguments();
        if (member == "RegisterStatusNotifierItem" && args.size() == 1) {
            std::printf("item\t%s\n", field(args[0]).constData());
            std::fflush(stdout);
            connection.send(message.createReply());
            return true;
        }
        if (member == "RegisterStatusNotifierHost") {
            connection.send(message.createReply());
            return true;
        }
        if (member == "Get" && args.size() == 2) {
            connection.send(message.createReply(
                QVariant::fromValue(QDBusVariant(properties().value(args[1].toString())))));
            return true;
        }
        if (member == "GetAll") {
            connection.send(message.createReply(properties()));
            return true;
        }
        return false;
    }
    // Qt reads the host's property through an interface it builds from this description.
    QString introspect(const QString&) const override {
        return R"(<interface name="org.kde.StatusNotifierWatcher">
  <method name="RegisterStatusNotifierItem"><arg name="service" type="s" direction="in"/></method>
  <method name="RegisterStatusNotifierHost"><arg name="service" type="s" direction="in"/></method>
  <property name="RegisteredStatusNotifierItems" type="as" access="read"/>
  <property name="IsStatusNotifierHostRegistered" type="b" access="read"/>
  <property name="ProtocolVersion" type="i" access="read"/>
</interface>
)";
    }

private:
    static QVariantMap properties() {
        return {{"IsStatusNotifierHostRegistered", true},
                {"ProtocolVersion", 0},
                {"RegisteredStatusNotifierItems", QStringList()}};
    }
};

}  // namespace

int main(int argc, char* argv[]) {
    QCoreApplication application(argc, argv);
    const bool tray = argc == 3 && QByteArray(argv[2]) == "--tray";
    if (argc != 2 && !tray) {
        std::fprintf(stderr, "usage: notification_recorder BUS_ADDRESS [--tray]\n");
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
    TrayWatcher watcher;
    if (tray && (!bus.registerVirtualObject("/StatusNotifierWatcher", &watcher) ||
                 !bus.registerService("org.kde.StatusNotifierWatcher"))) {
        std::fprintf(stderr, "cannot be the tray: %s\n",
                     bus.lastError().message().toLocal8Bit().constData());
        return 1;
    }
    std::printf("ready\n");
    std::fflush(stdout);
    return application.exec();
}
