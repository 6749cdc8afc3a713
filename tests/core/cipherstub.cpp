// A cipher program for tests. Prints {"data": "<arg 1>\n<arg 2>\n..."} on one
// line. With ZT_CIPHER_STUB_MODE=silent it exits without printing anything.

#include <QtCore>

#include <cstdio>

int main(int argc, char *argv[])
{
    if (qgetenv("ZT_CIPHER_STUB_MODE") == "silent")
        return 0;
    QStringList arguments;
    for (int i = 1; i < argc; ++i)
        arguments << QString::fromLocal8Bit(argv[i]);
    const QJsonObject answer{{QStringLiteral("data"), arguments.join(QLatin1Char('\n'))}};
    const QByteArray text = QJsonDocument(answer).toJson(QJsonDocument::Compact);
    std::fwrite(text.constData(), 1, size_t(text.size()), stdout);
    std::fflush(stdout);
    return 0;
}
