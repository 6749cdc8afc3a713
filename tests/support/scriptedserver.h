#pragma once

#include <QtTest>
#include <QtNetwork>

#include <functional>

// A request as the server received it.
struct ScriptedRequest
{
    QByteArray method;
    QByteArray target; // path and query, as sent
    QList<QPair<QByteArray, QByteArray>> headers;
    QByteArray body;

    QUrl url() const { return QUrl(QString::fromLatin1(target)); }
    QString path() const { return url().path(); }
    QByteArray header(const QByteArray &name) const; // case-insensitive, first match
};

// What the server answers, and how.
struct ScriptedResponse
{
    int status = 200;
    QList<QPair<QByteArray, QByteArray>> headers;
    QByteArray body;
    qint64 dropAfterBytes = -1; // close the connection after this many body bytes
    bool closeWithoutAnswer = false;
    bool hold = false;          // answer only when release() is called
    qint64 holdAfterBytes = -1; // send this many body bytes, the rest when release() is called

    ScriptedResponse &header(const QByteArray &name, const QByteArray &value)
    {
        headers.append({name, value});
        return *this;
    }

    static ScriptedResponse json(const QByteArray &json, int status = 200);
    // Serves content honouring a "Range: bytes=a-b" header: 206 with
    // Content-Range (end clamped), 416 past the end, 200 without a range.
    static ScriptedResponse file(const QByteArray &content, const ScriptedRequest &request,
                                 const QByteArray &etag = QByteArray(),
                                 const QByteArray &fileName = QByteArray());
};

Q_DECLARE_METATYPE(ScriptedResponse)

// An in-process HTTP/1.1 server on 127.0.0.1 for tests: each request is answered
// by the handler (or the next queued response, else 404) and recorded. It also
// counts how many requests were open at once.
class ScriptedServer : public QTcpServer
{
    Q_OBJECT
public:
    using Handler = std::function<ScriptedResponse(const ScriptedRequest &)>;

    bool start() { return listen(QHostAddress::LocalHost, 0); }
    QString baseUrl() const { return QStringLiteral("http://127.0.0.1:%1").arg(serverPort()); }

    void setHandler(Handler handler) { m_handler = std::move(handler); }
    void enqueue(const ScriptedResponse &response) { m_queue.append(response); }

    QList<ScriptedRequest> requests() const { return m_requests; }
    int requestCount() const { return m_requests.size(); }
    int connectionCount() const { return m_connections; } // accepted since start
    // Waits until no request has come and none is open for quietMs, at most
    // boundMs. A client that gave up may still have requests on their way, and
    // a count of what is sent next must not take them for its own.
    bool waitUntilQuiet(int quietMs = 100, int boundMs = 5000);
    int openRequests() const { return m_open; }
    int maxOpenRequests() const { return m_maxOpen; }
    int heldCount() const { return m_held.size(); }
    qint64 bodyBytesSent() const { return m_bodyBytesSent; }

    // Answers held responses (or sends the rest of paused ones), oldest first;
    // all of them with n < 0.
    void release(int n = -1);

Q_SIGNALS:
    void requestReceived(const ScriptedRequest &request);

protected:
    void incomingConnection(qintptr socketDescriptor) override;

private:
    struct Held
    {
        QTcpSocket *socket;
        ScriptedResponse response;
        bool bodyOnly = false; // the rest of a paused answer
    };
    void readFrom(QTcpSocket *socket);
    void dispatch(QTcpSocket *socket, const ScriptedRequest &request);
    void answer(QTcpSocket *socket, const ScriptedResponse &response);
    void sendBody(QTcpSocket *socket, const ScriptedResponse &response);

    Handler m_handler;
    QList<ScriptedResponse> m_queue;
    QList<ScriptedRequest> m_requests;
    QList<Held> m_held;
    QHash<QTcpSocket *, QByteArray> m_buffers;
    int m_open = 0;
    int m_maxOpen = 0;
    int m_connections = 0;
    qint64 m_bodyBytesSent = 0;
};
