#pragma once

#include <QString>

// Words for the host library's error codes: the Zephyrtide::Error::ErrorCode
// key, a sentence a user can act on, and what the code means for the exit status.
class ErrorText
{
public:
    // What ztcli was doing when the code came back; the same code means
    // different things for a listing and for a transfer.
    enum Context { ServiceRequest, Transfer };

    static QString name(int code);
    static QString sentence(int code);
    // "NotExist (20712): the file does not exist on the service."
    static QString describe(int code);
    static int exitCode(int code, Context context);

    static bool isNetworkError(int code);
};
