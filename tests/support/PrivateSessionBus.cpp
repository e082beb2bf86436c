#include "PrivateSessionBus.h"

#include <QFile>
#include <QStandardPaths>

#include "TestSupport.h"

namespace vlm::test {

namespace {
constexpr int kStartMs = 10000;
}  // namespace

PrivateSessionBus::PrivateSessionBus() {
    const QString program = QStandardPaths::findExecutable("dbus-daemon");
    if (program.isEmpty() || !folder_.isValid())
        return;
    const QString configPath = folder_.filePath("bus.conf");
    QFile config(configPath);
    if (!config.open(QIODevice::WriteOnly))
        return;
    config.write(
        QByteArray::fromStdString(sessionBusConfig("unix:dir=" + folder_.path().toStdString())));
    config.close();

    daemon_.start(program, {"--config-file=" + configPath, "--nofork", "--print-address=1"});
    if (!daemon_.waitForStarted(kStartMs))
        return;
    while (!daemon_.canReadLine() && daemon_.waitForReadyRead(kStartMs)) {
    }
    address_ = QString::fromUtf8(daemon_.readLine()).trimmed();
}

PrivateSessionBus::~PrivateSessionBus() {
    if (daemon_.state() == QProcess::NotRunning)
        return;
    daemon_.terminate();
    if (!daemon_.waitForFinished(kStartMs))
        daemon_.kill();
    daemon_.waitForFinished(kStartMs);
}

}  // namespace vlm::test
