"""A server that does what a test's script says, byte for byte: answers of every kind, and every way to stop early.

A script maps the name of a requested file to steps. A step is bytes to send, or a function that is given the
connection: one of those below, or a test's own. After the last step the server awaits the next request on the same
connection, so a script whose answer has no length must end with a step that closes.
"""

import select
import socket
import ssl
import struct
import threading

SUBDIR = "defs"


def reply(body=b"", status="200 OK", *headers):
    """A whole answer with its length."""
    return head(status, f"Content-Length: {len(body)}", *headers) + body


def head(status="200 OK", *headers):
    return "".join(f"{line}\r\n" for line in (f"HTTP/1.1 {status}", *headers, "")).encode("latin-1")


def chunk(data):
    return b"%x\r\n%s\r\n" % (len(data), data)


def finish(connection):
    """Ends the connection in order: TLS says so before TCP does."""
    if isinstance(connection.socket, ssl.SSLSocket):
        connection.socket = connection.socket.unwrap()
    connection.socket.shutdown(socket.SHUT_RDWR)


def cut(connection):
    """Ends TCP alone, without a word from TLS, as anyone on the way can."""
    connection.socket.shutdown(socket.SHUT_RDWR)


def reset(connection):
    connection.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.socket.close()
    raise ConnectionResetError


def stall(connection):
    """Sends nothing more until the client closes the connection."""
    while connection.socket.recv(4096):
        pass
    raise ConnectionAbortedError


def receive(connection):
    """Reads what the client has sent, and ignores it."""
    connection.socket.recv(65536)


def flood(data, interval_s=0):
    """Sends the data again and again until the client closes the connection: as fast as it reads, or at an interval."""

    def step(connection):
        while not select.select([connection.socket], [], [], interval_s)[0]:
            connection.socket.sendall(data)
        raise ConnectionAbortedError

    return step


def hello_answer(size=None):
    """The server's first flight of an honest handshake, or so many bytes of it."""

    def step(connection):
        incoming, outgoing = ssl.MemoryBIO(), ssl.MemoryBIO()
        tls = connection.server.context.wrap_bio(incoming, outgoing, server_side=True)
        incoming.write(connection.socket.recv(65536))
        try:
            tls.do_handshake()
        except ssl.SSLWantReadError:
            connection.socket.sendall(outgoing.read()[:size])

    return step


class _Connection:
    def __init__(self, server, accepted):
        self.server = server
        self.socket = accepted
        self._received = b""

    def play(self, steps):
        for step in steps:
            if isinstance(step, bytes):
                self.socket.sendall(step)
            else:
                step(self)

    def request(self):
        """The target of the next request, with its head kept in the server's list; None when the client is done."""
        while b"\r\n\r\n" not in self._received:
            data = self.socket.recv(65536)
            if not data:
                return None
            self._received += data
        text, self._received = self._received.split(b"\r\n\r\n", 1)
        lines = text.decode("latin-1").split("\r\n")
        self.server.requests.append(lines)
        return lines[0].split(" ", 1)[1].rsplit(" ", 1)[0]


class ScriptedServer:
    """Listens on a free loopback port; speaks TLS when there is a context, plain HTTP when there is none."""

    def __init__(self, context=None, address="127.0.0.1", port=0):
        self.context = context
        self.script = {}  # file name: steps, or a function of no arguments that returns them
        self.opening = None  # steps instead of the TLS handshake; the connection ends with them
        self.requests = []  # the head of every request, as lines
        self.connections = 0
        self.mistakes = []  # exceptions that no connection explains: the test itself is wrong
        self._listener = socket.create_server(
            (address, port), family=socket.AF_INET6 if ":" in address else socket.AF_INET
        )
        self.port = self._listener.getsockname()[1]
        self._open = set()
        self._threads = [threading.Thread(target=self._accept)]
        self._threads[0].start()

    def base(self, host="127.0.0.1"):
        """What the files' URLs begin with."""
        return f"{'https' if self.context else 'http'}://{host}:{self.port}/{SUBDIR}"

    def targets(self):
        """The requested files, in order; forgets them."""
        found = [lines[0].split(" ", 1)[1].rsplit(" ", 1)[0].removeprefix(f"/{SUBDIR}/") for lines in self.requests]
        self.requests.clear()
        return found

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stop()

    def stop(self):
        self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()
        for accepted in list(self._open):
            try:
                accepted.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass  # it is closed already
        for thread in self._threads:
            thread.join(timeout=30)
        assert self.mistakes == []

    def _accept(self):
        while True:
            try:
                accepted = self._listener.accept()[0]
            except OSError:
                return  # the listener was shut down
            self._threads.append(threading.Thread(target=self._serve, args=(accepted,)))
            self._threads[-1].start()

    def _serve(self, accepted):
        self.connections += 1
        self._open.add(accepted)
        accepted.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        connection = _Connection(self, accepted)
        try:
            self._converse(connection)
        except (OSError, ValueError):
            pass  # the client hung up, or a step ended the connection; ValueError: on a socket that is closed
        except BaseException as mistake:
            self.mistakes.append(mistake)
        finally:
            self._open.discard(accepted)
            connection.socket.close()

    def _converse(self, connection):
        if self.opening is not None:
            connection.play(self.opening)
            return
        if self.context:
            self._open.discard(connection.socket)  # its descriptor goes over to the TLS socket
            connection.socket = self.context.wrap_socket(connection.socket, server_side=True)
            self._open.add(connection.socket)
        while (target := connection.request()) is not None:
            steps = self.script.get(target.removeprefix(f"/{SUBDIR}/"), [reply(b"", "404 Not Found")])
            connection.play(steps() if callable(steps) else steps)
