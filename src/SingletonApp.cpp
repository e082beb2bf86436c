#include "SingletonApp.h"

#include "platform/Platform.h"

QSingletonApp::QSingletonApp(QObject* parent) : QObject(parent) {}

QSingletonApp::~QSingletonApp() {
    handler = nullptr;
    server.close();
    socket.abort();
}

bool QSingletonApp::claim(const QString& serverName, int timeoutMs) {
    // Without a private name there is no guard: this agent runs on its own.
    if (serverName.isEmpty())
        return false;
    socket.connectToServer(serverName, QIODevice::ReadWrite);
    if (socket.waitForConnected(timeoutMs)) {
        // Only an agent of the same user may stop this one and hear from it.
        if (vlm::platform::peerIsSameUser(socket.socketDescriptor())) {
            alreadyRunning = true;
            return true;
        }
        socket.abort();
    }
    // Nobody answered: a socket file left by an agent that crashed must not block listening.
    QLocalServer::removeServer(serverName);
    server.listen(serverName);
    connect(&server, &QLocalServer::newConnection, this, &QSingletonApp::acceptConnection);
    return false;
}

void QSingletonApp::acceptConnection() {
    QLocalSocket* client = server.nextPendingConnection();
    if (!client)
        return;
    if (!vlm::platform::peerIsSameUser(client->socketDescriptor())) {
        client->abort();
        client->deleteLater();
        return;
    }
    connect(client, &QLocalSocket::disconnected, client, &QObject::deleteLater);
    connect(
        client, &QLocalSocket::readyRead, client,
        [this, client]() {
            if (handler)
                handler(client->readAll());
        },
        Qt::DirectConnection);
}

void QSingletonApp::send(qint32 message) {
    socket.write(reinterpret_cast<const char*>(&message), sizeof message);
    // The bytes must leave before the process ends; the running agent reads them at once.
    socket.flush();
    socket.waitForBytesWritten(1000);
}
