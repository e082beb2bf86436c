// A desktop notification service for the end-to-end test: owns org.freedesktop.Notifications on
// the bus given, answers Notify and prints each call as "app<TAB>icon<TAB>title<TAB>body<TAB>
// timeout", after a first line "ready". Usage: notification_recorder BUS_ADDRESS

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVirtualObject>
#include <cstdio>

namespace {

struct Recorder : QDBusVirtualObject {
    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override {
        const QList<QVariant> args = message.arguments();
        if (message.member() != "Notify" || args.size() != 8)
            return false;
        QStringList fields;
        for (int i : {0, 2, 3, 4, 7})
            fields << args[i].toString().replace('\t', "\\t").replace('\n', "\\n");
        std::printf("%s\n", fields.join('\t').toUtf8().constData());
        connection.send(message.createReply(1u));  // any id: nothing closes them
        return true;
    }
    QString introspect(const QString&) const override { return {}; }
};

}  // namespace

int main(int argc, char* argv[]) {
    QCoreApplication application(argc, argv);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);  // every line reaches the test as printed
    QDBusConnection bus = QDBusConnection::connectToBus(QString::fromLocal8Bit(argv[1]), "bus");
    Recorder recorder;
    if (!bus.registerVirtualObject("/org/freedesktop/Notifications", &recorder) ||
        !bus.registerService("org.freedesktop.Notifications"))
        return 1;
    std::printf("ready\n");
    return application.exec();
}
