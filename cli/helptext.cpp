#include "helptext.h"

QString HelpText::general()
{
    return QStringLiteral(
R"(Usage: ztcli [OPTIONS] COMMAND [ARGS...]

Moves files to and from a file service through the ztServer plugin, which it
loads exactly as the desktop host does.

Commands:
  serve [--root DIR] [--port N]  run the reference file service in the foreground
  list [--json]                  list the files stored on the service
  delete NAME...                 delete stored files
  upload FILE...                 upload local files; an interrupted upload resumes
  download NAME... [--to DIR] [-o FILE]
                                 download stored files; an interrupted download resumes
  exists NAME                    tell whether NAME is stored and how much of it is
                                 already downloaded here
  partial [--clear [NAME]]       list the partial downloads under --temp, or
                                 remove them (all, or those of NAME)
  demo [--size-mb N]             upload, list, download and verify sample files
                                 against a private file service
  help [COMMAND]                 show this help, or the help of COMMAND

Options:
  -s, --server URL       address of the file service, e.g. http://127.0.0.1:8080
                         (default: $ZT_SERVER)
      --token TOKEN      token the host hands to the service (default: $ZT_TOKEN)
      --cacert FILE      also trust the certificate authorities in FILE (PEM)
                         for an https:// service
      --temp DIR         folder for partial downloads, kept between runs so that
                         they resume (default: $XDG_CACHE_HOME/ztcli/partial,
                         i.e. ~/.cache/ztcli/partial)
      --chunk-size-mb N  download chunk size in MiB (default: the plugin's, 50)
      --timeout S        stop a transfer that moves no byte for S seconds; it
                         fails and the next run resumes it
      --retry N          after a network failure or a time-out, try a transfer
                         again up to N times, waiting 1, 2, 4 ... 30 s between
  -q, --quiet            show no progress (results and errors still show)
  -v, --verbose          show the plugin's log on stderr
  -h, --help             show help
      --version          show the version

Environment:
  ZT_SERVER       address of the file service when --server is not given
  ZT_TOKEN        token when --token is not given
  ZT_PLUGIN       the plugin to load (default: ../plugins/libztServer.so
                  relative to the ztcli executable, or where make install
                  put it, ../lib/ztserver/plugins/)
  ZT_FILESERVICE  the reference file service script (serve, demo)

Progress goes to stderr: a live bar on a terminal, otherwise one line a second
and a final line; stdout carries only results.
Ctrl-C stops a transfer so that the next run resumes it; a second Ctrl-C aborts
it and discards what arrived (at a terminal, up to 2 s after a download stopped).

Exit status:
  0    success
  1    a named file is not on the service
  2    usage error: bad command line, no server address, unreadable local file
  3    the service is unreachable or refused the request
  4    an upload or download failed, or its bytes are wrong
  5    the plugin or the reference file service could not be loaded or started
  130  interrupted by Ctrl-C
)");
}

QString HelpText::command(const QString &name)
{
    if (name == QLatin1String("serve"))
        return QStringLiteral(
R"(Usage: ztcli serve [--root DIR] [--port N]

Runs the reference file service in the foreground until Ctrl-C. It prints its
address (http://127.0.0.1:PORT) as the first line. Stored files are the plain
files in DIR; upload sessions live in DIR/.uploads and survive a restart.

Options:
  --root DIR  folder of the stored files (default: ./zt-store)
  --port N    port on 127.0.0.1; 0 picks a free one (default: 8080)
)");
    if (name == QLatin1String("list"))
        return QStringLiteral(
R"(Usage: ztcli [--server URL] list [--json]

Lists the files stored on the service: name, size and time of change.

Options:
  --json  print the service's list as JSON instead of a table
)");
    if (name == QLatin1String("delete"))
        return QStringLiteral(
R"(Usage: ztcli [--server URL] delete NAME...

Deletes the named files from the service. A name that is not stored is
reported, the others are still deleted, and the exit status is 1.
)");
    if (name == QLatin1String("upload"))
        return QStringLiteral(
R"(Usage: ztcli [--server URL] upload FILE...

Uploads local files in one job; each is stored under its own file name. Chunks
travel in parallel to the addresses the service hands out. Ctrl-C stops the
upload and keeps its session; running the same command again sends only what
the service still lacks. A second Ctrl-C aborts and forgets the session.
)");
    if (name == QLatin1String("download"))
        return QStringLiteral(
R"(Usage: ztcli [--server URL] [--temp DIR] [--chunk-size-mb N] download NAME... [--to DIR] [-o FILE]

Downloads the named files in parallel ranged chunks into the destination
folder. Chunks wait under --temp until the file is complete; the merge then
joins them into NAME.ztmerge beside the destination, removing each chunk as it
goes in, and renames it. If a file of that name already exists there, it is
kept and the download gets a free name such as NAME(1).ext. Ctrl-C stops the
download, or its merge, and keeps what is there; running the same command
again fetches only the missing bytes. A second Ctrl-C aborts and discards them,
also within 2 s after the download stopped when ztcli runs at a terminal.

Options:
  --to DIR          destination folder, created if missing (default: the current folder)
  -o, --output FILE for one NAME: the file to write; an existing FILE is
                    replaced once the download is complete
)");
    if (name == QLatin1String("exists"))
        return QStringLiteral(
R"(Usage: ztcli [--server URL] [--temp DIR] exists NAME

Tells whether NAME is stored on the service, its size, and how many of its
bytes an interrupted download has already put under --temp. Exit status 0 when
it is stored, 1 when it is not.
)");
    if (name == QLatin1String("partial"))
        return QStringLiteral(
R"(Usage: ztcli [--temp DIR] partial [--clear [NAME]]

Lists what interrupted downloads left under --temp: the file each is of, how
much of it is there, and when it last grew. A download that another ztcli is
running now is marked and never removed. Needs no service.

Options:
  --clear   remove them instead (all, or only those of NAME); the next
            download of that file starts from nothing
)");
    if (name == QLatin1String("demo"))
        return QStringLiteral(
R"(Usage: ztcli demo [--size-mb N]

Starts the reference file service on a free loopback port with a temporary
store, makes three sample files (a short text, 3 MiB + 1 byte, and one of N
MiB), uploads them, lists them, downloads them into a fresh folder, compares
their SHA-256 with the originals and prints sizes, times and rates. Nothing to
configure; the service is stopped and the temporary folders removed at the end,
also after an error or Ctrl-C.

Options:
  --size-mb N  size of the large sample in MiB (default: 300)
)");
    if (name == QLatin1String("help"))
        return QStringLiteral(
R"(Usage: ztcli help [COMMAND]

Shows the general help, or the help of COMMAND (the same as COMMAND --help).
)");
    return QString();
}

QString HelpText::usageHint()
{
    return QStringLiteral("Run \"ztcli --help\" for the commands and options.\n");
}
