"""The service as a child process on a free loopback port, as the tests and
the benchmarks start it. Imports nothing of the service itself."""
import os
import select
import signal
import subprocess
import time

SCRIPT = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "zt-fileservice")


class ServiceProcess:
    """zt-fileservice --root ROOT --port 0 OPTIONS, its log (stderr) appended to log_path.

    prefix is a command it runs under; preexec_fn runs in the child before it starts.
    """

    def __init__(self, root, log_path, options=(), prefix=(), preexec_fn=None, timeout=20):
        self.root = root
        self.log_path = log_path
        self.command = [*prefix, "/usr/bin/python3", "-B", SCRIPT, "--root", root, "--host", "127.0.0.1",
                        "--port", "0", *options]
        self.preexec_fn = preexec_fn
        self.timeout = timeout          # seconds to start, and to stop
        self.process = None
        self.url = None

    def start(self):
        os.makedirs(self.root, exist_ok=True)
        with open(self.log_path, "ab") as log:
            self.process = subprocess.Popen(self.command, stdout=subprocess.PIPE, stderr=log,
                                            preexec_fn=self.preexec_fn)
        self.url = self._first_line()
        if not self.url.startswith(("http://", "https://")):
            self.stop()
            raise RuntimeError("file service did not start (%r); its log: %s" % (self.url, self.log_path))
        return self

    def _first_line(self):
        """The address the service prints once it listens; "" when none comes in time."""
        line, deadline = b"", time.monotonic() + self.timeout
        fd = self.process.stdout.fileno()
        while not line.endswith(b"\n"):
            remaining = deadline - time.monotonic()
            if remaining <= 0 or not select.select([fd], [], [], remaining)[0]:
                break
            piece = os.read(fd, 256)
            if not piece:
                break
            line += piece
        return line.decode(errors="replace").strip()

    def stop(self, signum=signal.SIGTERM):
        """Stops the service (killed when it does not end in time); its exit status."""
        if self.process is None:
            return None
        if self.process.poll() is None:
            self.process.send_signal(signum)
            try:
                self.process.wait(timeout=self.timeout)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait(timeout=self.timeout)
        self.process.stdout.close()
        return self.process.returncode

    def log(self):
        with open(self.log_path, "rb") as f:
            return f.read().decode(errors="replace")
