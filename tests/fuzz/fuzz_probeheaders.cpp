// The probe answer's headers, as a server sends them, through DownloadTask's
// parsing and what it derives from them: size, tag, destination name and
// temporary folder; then the same answer as a chunk's, through the check that
// decides whether its body may go into the chunk file.
//
// An input is text. The first line is the HTTP status, optionally followed by
// a space and the file name the host gave (without one, the server's
// Content-Disposition names the file). Every further line is a header,
// "Name: value"; the value is trimmed as Qt's HTTP parser trims it.
//
//   206 report.pdf
//   Content-Range: bytes 0-1/3145805
//   Etag: "18ea8bc464e925fd-30004d"

#include "fuzzenvironment.h"

#include "download/downloadchunk.h"
#include "download/downloadglobal.h"
#include "download/downloadtask.h"

#include <cstdint>
#include <limits>

namespace {

using FuzzEnvironment::require;

// Present in the destination folder before every input, so that a name the
// host or the server gives can collide with an existing file.
const QStringList PresentFiles{QStringLiteral("report.pdf"), QStringLiteral("Grüße.txt"), QStringLiteral("noext")};

struct ProbeAnswer
{
    int status = 0;
    QString hostName;
    QList<QPair<QByteArray, QByteArray>> headers;
};

ProbeAnswer readAnswer(const QByteArray &input)
{
    ProbeAnswer answer;
    const QList<QByteArray> lines = input.split('\n');
    const QByteArray first = lines.first().trimmed();
    const int space = first.indexOf(' ');
    answer.status = first.left(space).toInt(); // left(-1) is the whole line
    if (space > 0)
        answer.hostName = QString::fromUtf8(first.mid(space + 1).trimmed());
    for (int i = 1; i < lines.size(); ++i) {
        const int colon = lines.at(i).indexOf(':');
        if (colon > 0) // a line without a name never reaches rawHeaderPairs()
            answer.headers.append(
                {lines.at(i).left(colon).trimmed(), lines.at(i).mid(colon + 1).trimmed()});
    }
    return answer;
}

QString destinationFolder()
{
    return FuzzEnvironment::scratchPath() + QLatin1String("/destination");
}

// Back to the present files only: the placeholders an input reserved go, so
// that the loop neither fills the disk nor lets one input's names collide
// with the next one's.
void resetDestination()
{
    QDir folder(destinationFolder());
    folder.removeRecursively();
    folder.mkpath(QStringLiteral("."));
    for (const QString &name : PresentFiles) {
        QFile file(folder.filePath(name));
        require(file.open(QIODevice::WriteOnly), "a present file can be made", file.fileName());
    }
}

// The part of isValid() before the probe: the host's destination and name.
void prepare(DownloadTask &task, const QString &hostName)
{
    task.m_path = destinationFolder();
    task.url = QStringLiteral("http://127.0.0.1:8080/download"); // every file's; the name goes in the body
    if (hostName.isEmpty())
        return;
    task.fileName = hostName;
    task.requestedName = hostName;
    task.filePath = task.m_path + QLatin1Char('/') + hostName;
}

void checkDerived(const DownloadTask &task, bool serverNamed, const QString &askedPath, bool askedWasPresent)
{
    static const QRegularExpression md5Hex(QStringLiteral("^[0-9a-f]{32}$"));
    // The tag names a folder that is removed whole after the merge: whatever
    // the server sent as ETag reaches the file system only as a digest.
    if (!task.serverEtag.isEmpty())
        require(md5Hex.match(task.etag).hasMatch(), "a server tag becomes an MD5 digest", task.etag);
    require(!task.etag.isEmpty() && !task.etag.contains(QLatin1Char('/')), "the tag is one path segment",
            task.etag);
    require(task.tempDir == DownloadGlobal::instance()->temporaryStoragePath() + QLatin1Char('/') + task.etag,
            "the temporary folder is the tag's folder under the storage path", task.tempDir);
    // The host may name any path; a name the server gave, or a free name beside
    // a taken one, stays in the host's folder.
    const QFileInfo given(task.filePath);
    if (!serverNamed && !askedWasPresent)
        return;
    require(given.absolutePath() == QFileInfo(task.m_path).absoluteFilePath(),
            "the destination is in the host's folder", task.filePath);
    require(given.fileName() == task.fileName, "the file name is the path's last segment",
            task.fileName + QLatin1String(" / ") + task.filePath);
    if (!askedWasPresent)
        return;
    // A taken destination gives way to a new name beside it, never over a present file.
    require(task.filePath != askedPath, "a taken destination is not kept", task.filePath);
    require(!PresentFiles.contains(given.fileName()), "the free name was free", task.filePath);
}

// Header values as QNetworkReply::rawHeader() finds them: by name in any case.
QByteArrayList headerValues(const ProbeAnswer &answer, const QByteArray &name)
{
    QByteArrayList values;
    for (const auto &header : answer.headers) {
        if (header.first.compare(name, Qt::CaseInsensitive) == 0)
            values.append(header.second);
    }
    return values;
}

// The answer as a chunk's, for a request from byte `from` on, against the tag
// the probe kept: bytes of another range or another file never reach the chunk
// file, and a well-formed answer with the range asked for is never refused.
void checkChunkAnswer(const ProbeAnswer &answer, qint64 from, const QString &probeTag)
{
    static const QRegularExpression wellFormed(
        QStringLiteral("^bytes (\\d{1,18})-(\\d{1,18})/(\\d{1,18}|\\*)$"));
    const QByteArray range = headerValues(answer, "Content-Range").value(0);
    const QByteArrayList tags = headerValues(answer, "ETag");
    const QString reason = DownloadChunk::refusal(answer.status, range, tags.value(0), from, probeTag);
    const QRegularExpressionMatch strict = wellFormed.match(QString::fromLatin1(range));
    const bool rangeAsked = strict.hasMatch() && strict.captured(1).toLongLong() == from
                            && strict.captured(2).toLongLong() >= from;
    const QString detail = QString::number(answer.status) + QLatin1Char(' ') + QString::fromLatin1(range)
                           + QLatin1String(" from ") + QString::number(from) + QLatin1String(": ") + reason;
    if (reason.isEmpty()) {
        require(answer.status == 206 || (answer.status == 200 && from == 0),
                "only a range answer, or the whole file from byte 0, is taken", detail);
        require(answer.status != 206 || rangeAsked, "only the range asked for is taken", detail);
    }
    // With one ETag, the chunk reads the very tag the probe kept.
    const bool sameFile = tags.size() <= 1;
    const bool asked = (answer.status == 206 && rangeAsked) || (answer.status == 200 && from == 0);
    if (sameFile && asked)
        require(reason.isEmpty(), "the range asked for, of the same file, is taken", detail);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    FuzzEnvironment::setUp();
    DownloadGlobal *global = DownloadGlobal::instance();
    require(global->temporaryStoragePath().startsWith(FuzzEnvironment::scratchPath()),
            "the default storage path is in the scratch home", global->temporaryStoragePath());
    global->setTemporaryStoragePath(FuzzEnvironment::scratchPath() + QLatin1String("/temporary"));
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const ProbeAnswer answer =
        readAnswer(QByteArray::fromRawData(reinterpret_cast<const char *>(data), int(size)));
    resetDestination();

    DownloadTask task;
    prepare(task, answer.hostName);
    task.parseHeaderPairs(answer.status, answer.headers);
    require(task.fileSize >= -1, "the size is unknown (-1) or a byte count",
            QString::number(task.fileSize));

    const QString askedPath = task.filePath;
    const bool askedWasPresent = !askedPath.isEmpty() && QFileInfo::exists(askedPath);
    if (task.applyProbe())
        checkDerived(task, answer.hostName.isEmpty(), askedPath, askedWasPresent);

    // A chunk asks from byte 0, from where this answer's range starts, or one past it.
    const QByteArray range = headerValues(answer, "Content-Range").value(0);
    const qint64 start = range.startsWith("bytes ") ? range.mid(6, range.indexOf('-') - 6).toLongLong() : 0;
    const qint64 next = start < std::numeric_limits<qint64>::max() ? start + 1 : start;
    for (const qint64 from : {qint64(0), start, next})
        checkChunkAnswer(answer, from, task.serverEtag);
    return 0;
}
