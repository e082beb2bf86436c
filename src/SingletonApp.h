#pragma once
// The single-instance guard of the agent role.

#include <QByteArray>
#include <QLocalServer>
#include <QLocalSocket>
#include <QObject>
#include <functional>

/// \brief Reaches an agent that already runs, or listens as the first agent.
class QSingletonApp : public QObject {
    Q_OBJECT
public:
    using MessageHandler = std::function<void(const QByteArray&)>;

    explicit QSingletonApp(QObject* parent = nullptr);
    ~QSingletonApp() override;

    /// Connects to a running agent within timeoutMs; otherwise listens under the same name.
    /// Returns true when another agent already runs.
    bool claim(const QString& serverName, int timeoutMs);
    /// Sends the running agent a 4-byte message (second agent only).
    void send(qint32 message);

    QLocalSocket socket;
    QLocalServer server;
    bool alreadyRunning = false;
    MessageHandler handler;

private:
    void acceptConnection();
};
