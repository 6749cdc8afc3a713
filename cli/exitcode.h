#pragma once

// ztcli's exit status. Scripts rely on these numbers; the help text and the
// README list them, so change all three together.
enum ExitCode {
    ExitSuccess = 0,
    ExitNotFound = 1,     // a named file is not on the service
    ExitUsage = 2,        // bad command line, missing server address, unreadable local file
    ExitServer = 3,       // the service is unreachable or refused the request
    ExitTransfer = 4,     // an upload or download failed, or its bytes are wrong
    ExitSetup = 5,        // the plugin or the reference file service cannot be loaded or started
    ExitInterrupted = 130 // Ctrl-C: stopped (resumable) or aborted
};
