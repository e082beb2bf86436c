#pragma once
// A session bus of the test's own, so that no test asks the desktop's portal.

#include <QProcess>
#include <QString>
#include <QTemporaryDir>
#include <memory>

namespace vlm::test {

/// \brief A dbus-daemon with no activatable services, listening in a temporary folder.
class PrivateSessionBus {
public:
    /// Starts the daemon; address() is empty when it could not start.
    PrivateSessionBus();
    ~PrivateSessionBus();

    const QString& address() const { return address_; }

private:
    QTemporaryDir folder_;
    QProcess daemon_;
    QString address_;
};

}  // namespace vlm::test
