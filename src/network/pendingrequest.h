#pragma once

#include "requestbody.h"

#include <QByteArray>
#include <QNetworkRequest>
#include <QSharedPointer>

class NetworkReply;

// One transfer as the caller asked for it. Shared between the queue and the
// reply that stands for it, so that a retry can send it again.
struct PendingRequest
{
    enum Verb { Post = 0, Get = 1, Put = 2 }; // any value but Post and Put means GET

    QNetworkRequest request;
    int type = Get;
    QByteArray body;
    QSharedPointer<RequestBody> bodySource; // when set, read at issue time instead of body
    bool prepareScheduled = false;          // bodySource->prepare() handed to a worker
    quint64 arrival = 0;                    // place in the queue: lower came first
    NetworkReply *reply = nullptr; // identity only; the caller owns the reply
};
