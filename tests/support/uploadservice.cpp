#include "uploadservice.h"

UploadService::UploadService(ScriptedServer *server)
    : m_server(server)
{
    server->setHandler([this](const ScriptedRequest &request) { return answer(request); });
}

QByteArray UploadService::session(const QString &uploadID, qint64 chunkSize, const QList<int> &parts,
                                  bool exist, const QMap<int, int> &held) const
{
    const QString base = m_server->baseUrl();
    QJsonArray chunks;
    for (int part : parts) {
        const QString url = QStringLiteral("%1/upload/part?uploadID=%2&partNumber=%3").arg(base, uploadID).arg(part);
        QJsonObject chunk{{"url", url},
                          {"headers", QJsonObject{{"X-Upload-Token", uploadID + "-token"}}}};
        if (held.contains(part))
            chunk.insert("bytesSent", held.value(part));
        chunks.append(chunk);
    }
    QJsonObject result{{"exist", exist}, {"cdnURL", base + "/download?fileName=f.bin"}};
    if (!exist) {
        result.insert("uploadInfo", QJsonObject{{"chunkSize", chunkSize}, {"expires", 3600}, {"method", "POST"},
                                                {"uploadID", uploadID}, {"chunks", chunks}});
    }
    return QJsonDocument(QJsonObject{{"status", "success"}, {"result", result}}).toJson();
}

QList<ScriptedRequest> UploadService::requestsTo(const QString &path) const
{
    QList<ScriptedRequest> found;
    for (const ScriptedRequest &request : m_server->requests()) {
        if (request.path() == path)
            found.append(request);
    }
    return found;
}

ScriptedResponse UploadService::answer(const ScriptedRequest &request) const
{
    if (request.path() == QLatin1String("/upload/info")) {
        QByteArray body = info;
        if (body.isEmpty()) {
            const QJsonObject asked = QJsonDocument::fromJson(request.body).object();
            const qint64 size = asked.value("fileSize").toVariant().toLongLong();
            QList<int> parts;
            for (int part = 1; (part - 1) * chunkSize < size; ++part)
                parts << part;
            body = session(asked.value("fileMD5").toString(), chunkSize, parts);
        }
        ScriptedResponse response = ScriptedResponse::json(body);
        response.hold = holdInfo;
        return response;
    }
    if (request.path() == QLatin1String("/upload/complete")) {
        ScriptedResponse response = ScriptedResponse::json(R"({"status":"success","result":{}})");
        response.hold = holdComplete;
        return response;
    }
    const int part = QUrlQuery(request.url()).queryItemValue("partNumber").toInt();
    ScriptedResponse response;
    response.status = partStatus.value(part, 200);
    response.hold = holdParts && part > answeredParts;
    return response;
}
