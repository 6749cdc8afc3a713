// Preloaded into ztcli by a test: the Nth copy_file_range (ZT_INTERRUPT_AT_COPY=N) first sends
// the process SIGINT, as a Ctrl-C while a download is being merged. Nothing else copies that way.
#include <csignal>
#include <cstdlib>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

extern "C" ssize_t copy_file_range(int in, loff_t *inOffset, int out, loff_t *outOffset, size_t length,
                                   unsigned int flags)
{
    static int calls = 0;
    const char *at = std::getenv("ZT_INTERRUPT_AT_COPY");
    if (at && ++calls == std::atoi(at))
        ::kill(::getpid(), SIGINT);
    return ::syscall(SYS_copy_file_range, in, inOffset, out, outOffset, length, flags);
}
