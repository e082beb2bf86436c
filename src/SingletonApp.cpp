#include "SingletonApp.h"

QSingletonApp::QSingletonApp(QObject* parent) : QObject(parent) {}

QSingletonApp::~QSingletonApp() {
    handler = nullptr;
    server.close();
    socket.abort();
}

bool QSingletonApp::claim(const QString& serverName, int timeoutMs) {
    socket.connectToServer(serverName, QIODevice::ReadWrite);
    if (socket.waitForConnected(timeoutMs)) {
        alreadyRunning = true;
        return true;
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
