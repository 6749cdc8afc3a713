#include "scriptedserver.h"

QByteArray ScriptedRequest::header(const QByteArray &name) const
{
    for (const auto &pair : headers) {
        if (pair.first.compare(name, Qt::CaseInsensitive) == 0)
            return pair.second;
    }
    return QByteArray();
}

ScriptedResponse ScriptedResponse::json(const QByteArray &json, int status)
{
    ScriptedResponse response;
    response.status = status;
    response.body = json;
    response.header("Content-Type", "application/json");
    return response;
}

ScriptedResponse ScriptedResponse::file(const QByteArray &content, const ScriptedRequest &request,
                                        const QByteArray &etag, const QByteArray &fileName)
{
    ScriptedResponse response;
    if (!etag.isEmpty())
        response.header("ETag", etag);
    if (!fileName.isEmpty())
        response.header("Content-Disposition", "attachment; filename=" + fileName.toPercentEncoding());
    const QByteArray range = request.header("Range");
    static const QRegularExpression pattern(QStringLiteral("^bytes=(\\d+)-(\\d*)$"));
    const auto match = pattern.match(QString::fromLatin1(range));
    if (range.isEmpty() || !match.hasMatch()) {
        response.body = content;
        return response;
    }
    const qint64 size = content.size();
    const qint64 first = match.captured(1).toLongLong();
    qint64 last = match.captured(2).isEmpty() ? size - 1 : match.captured(2).toLongLong();
    if (first >= size) {
        response.status = 416;
        response.header("Content-Range", "bytes */" + QByteArray::number(size));
        return response;
    }
    last = qMin(last, size - 1);
    response.status = 206;
    response.header("Content-Range", "bytes " + QByteArray::number(first) + '-'
                                         + QByteArray::number(last) + '/' + QByteArray::number(size));
    response.body = content.mid(first, last - first + 1);
    return response;
}

void ScriptedServer::release(int n)
{
    while (!m_held.isEmpty() && n-- != 0) {
        Held held = m_held.takeFirst();
        held.response.hold = false;
        if (!m_buffers.contains(held.socket))
            continue;
        if (held.bodyOnly) {
            --m_open;
            sendBody(held.socket, held.response);
        } else {
            answer(held.socket, held.response);
        }
    }
}

bool ScriptedServer::waitUntilQuiet(int quietMs, int boundMs)
{
    QElapsedTimer waited;
    waited.start();
    while (waited.elapsed() < boundMs) {
        const int seen = requestCount();
        QTest::qWait(quietMs);
        if (requestCount() == seen && m_open == 0)
            return true;
    }
    return false;
}

void ScriptedServer::incomingConnection(qintptr socketDescriptor)
{
    ++m_connections;
    auto *socket = new QTcpSocket(this); // child; deleted when the peer goes
    socket->setSocketDescriptor(socketDescriptor);
    m_buffers.insert(socket, QByteArray());
    connect(socket, &QTcpSocket::readyRead, this, [this, socket] { readFrom(socket); });
    connect(socket, &QTcpSocket::disconnected, this, [this, socket] {
        m_buffers.remove(socket);
        for (int i = m_held.size() - 1; i >= 0; --i) {
            if (m_held.at(i).socket == socket) {
                m_held.removeAt(i);
                --m_open;
            }
        }
        socket->deleteLater();
    });
}

void ScriptedServer::readFrom(QTcpSocket *socket)
{
    m_buffers[socket] += socket->readAll();
    // Answering may close the socket and drop its buffer, so look it up anew each time.
    while (m_buffers.contains(socket)) {
        QByteArray &buffer = m_buffers[socket];
        const int headerEnd = buffer.indexOf("\r\n\r\n");
        if (headerEnd < 0)
            return;
        const QList<QByteArray> lines = buffer.left(headerEnd).split('\n');
        ScriptedRequest request;
        const QList<QByteArray> requestLine = lines.value(0).trimmed().split(' ');
        request.method = requestLine.value(0);
        request.target = requestLine.value(1);
        for (int i = 1; i < lines.size(); ++i) {
            const QByteArray line = lines.at(i).trimmed();
            const int colon = line.indexOf(':');
            if (colon > 0)
                request.headers.append({line.left(colon).trimmed(), line.mid(colon + 1).trimmed()});
        }
        const qint64 length = request.header("Content-Length").toLongLong();
        if (buffer.size() < headerEnd + 4 + length)
            return;
        request.body = buffer.mid(headerEnd + 4, length);
        buffer.remove(0, headerEnd + 4 + length);
        dispatch(socket, request);
    }
}

void ScriptedServer::dispatch(QTcpSocket *socket, const ScriptedRequest &request)
{
    m_requests.append(request);
    m_maxOpen = qMax(m_maxOpen, ++m_open);
    Q_EMIT requestReceived(request);

    ScriptedResponse response;
    if (m_handler)
        response = m_handler(request);
    else if (!m_queue.isEmpty())
        response = m_queue.takeFirst();
    else
        response.status = 404;

    // As an HTTP/1.1 server does: the client that asks for it gets the connection closed.
    if (request.header("Connection").compare("close", Qt::CaseInsensitive) == 0)
        response.header("Connection", "close");
    if (response.hold) {
        m_held.append({socket, response});
        return;
    }
    answer(socket, response);
}

void ScriptedServer::answer(QTcpSocket *socket, const ScriptedResponse &response)
{
    --m_open;
    if (response.closeWithoutAnswer) {
        socket->abort();
        return;
    }
    QByteArray head = "HTTP/1.1 " + QByteArray::number(response.status) + " Scripted\r\n";
    bool hasLength = false;
    for (const auto &pair : response.headers) {
        head += pair.first + ": " + pair.second + "\r\n";
        hasLength = hasLength || pair.first.compare("Content-Length", Qt::CaseInsensitive) == 0;
    }
    if (!hasLength)
        head += "Content-Length: " + QByteArray::number(response.body.size()) + "\r\n";
    head += "\r\n";
    socket->write(head);
    if (response.holdAfterBytes >= 0 && response.holdAfterBytes < response.body.size()) {
        socket->write(response.body.left(response.holdAfterBytes));
        m_bodyBytesSent += response.holdAfterBytes;
        ScriptedResponse rest = response;
        rest.body = response.body.mid(response.holdAfterBytes);
        rest.holdAfterBytes = -1;
        m_held.append({socket, rest, true});
        ++m_open; // open until the rest is sent
        return;
    }
    sendBody(socket, response);
}

void ScriptedServer::sendBody(QTcpSocket *socket, const ScriptedResponse &response)
{
    const bool drop = response.dropAfterBytes >= 0 && response.dropAfterBytes < response.body.size();
    const QByteArray body = drop ? response.body.left(response.dropAfterBytes) : response.body;
    socket->write(body);
    m_bodyBytesSent += body.size();
    if (drop || response.headers.contains({"Connection", "close"})) {
        socket->flush();
        socket->disconnectFromHost();
    }
}
