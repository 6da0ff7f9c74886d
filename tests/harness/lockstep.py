"""Many releases through one daemon: a mirror that answers the daemon's loop, check by check, in step with the test."""

import http.server
import signal
import sys

from release import HIT, Release


class _Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"  # keeps the connection, which is what makes a check cheap
    wbufsize = -1  # sends an answer as one packet: a second one would wait for an acknowledgement
    timeout = 60

    def do_GET(self):
        body = self.server.answer(self.path.lstrip("/"))
        self.send_response(200 if body is not None else 404)
        self.send_header("Content-Length", str(len(body or b"")))
        self.end_headers()
        self.wfile.write(body or b"")

    def log_message(self, *_):
        pass


class LockstepMirror(http.server.HTTPServer):
    """Serves one release after the other to a gateway's daemon that runs its loop without a wait.

    The request for the hit INI is where a check begins. The mirror answers it only when the test has looked at what the
    check before it did, while the daemon waits: the log, the tree and the status file are all at rest then."""

    def __init__(self, gateway):
        super().__init__(("127.0.0.1", 0), _Handler)
        self.timeout = 60
        self.gateway = gateway
        self.files = {}
        self.failure = None
        self.steps = None
        gateway.settings |= {
            "mirror_base_url": f"http://127.0.0.1:{self.server_address[1]}",
            "mirror_subdir": "mirror",
            "poll_interval_s": 0,
            "poll_jitter_s": 0,
            "retained_snapshots": 1,
        }

    def offer(self, version, archive, name="release.archive"):
        """Announces an archive as it is, in place of the one before."""
        self.files = dict(Release(str(version), archive=archive, archive_name=name).files.values())

    def run(self, steps):
        """Runs a generator that fills self.files and yields before each check; then the daemon has to end well."""
        self.steps = steps
        daemon = self.gateway.start()
        try:
            self.handle_request()
            if self.failure is not None:
                raise self.failure
            assert self.steps is None, "the daemon hung, or hung up, in the middle of its checks"
            assert daemon.wait(timeout=60) == 0
        finally:
            daemon.kill()
            daemon.wait()
            self.server_close()

    def answer(self, path):
        if path == f"mirror/{HIT}":
            try:
                next(self.steps)
            except StopIteration:
                self.steps = None
                self.gateway.daemons[-1].send_signal(signal.SIGTERM)
        return self.files.get(path.removeprefix("mirror/"))

    def handle_error(self, _request, _address):
        """Keeps what a step asserted for the test; the daemon is ended by run()."""
        self.failure = sys.exc_info()[1]
