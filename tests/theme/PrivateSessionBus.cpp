#include "PrivateSessionBus.h"

#include <QFile>
#include <QStandardPaths>

namespace vlm::test {

namespace {
// No service folders: a name nobody owns fails at once instead of starting a program.
const char* const kConfig = R"(<!DOCTYPE busconfig PUBLIC
 "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:dir=%1</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
)";
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
    config.write(QString(kConfig).arg(folder_.path()).toUtf8());
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
