"""A TCP relay that counts what passes through it."""

import socket
import threading
import time


class Relay:
    """Listens on a free port of loopback and passes connections on to another port. Counts them, and the bytes that TCP
    carries in both directions, without headers."""

    def __init__(self, port):
        self.target = port
        self.counts = {"connections": 0, "sent": 0, "received": 0}  # as the client sees it
        self.lock = threading.Lock()
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        threading.Thread(target=self._accept, daemon=True).start()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()

    def totals(self):
        """The counts, once nothing has passed for a while: a client that has gone may still have sent something."""
        former = None
        while (totals := dict(self.counts)) != former:
            former = totals
            time.sleep(0.1)
        return totals

    def _count(self, what, number):
        with self.lock:
            self.counts[what] += number

    def _accept(self):
        while True:
            try:
                client = self.listener.accept()[0]
            except OSError:  # closed
                return
            server = socket.create_connection(("127.0.0.1", self.target))
            self._count("connections", 1)
            for source, sink, direction in ((client, server, "sent"), (server, client, "received")):
                source.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
                threading.Thread(target=self._pass_on, args=(source, sink, direction), daemon=True).start()

    def _pass_on(self, source, sink, direction):
        try:
            while data := source.recv(1 << 16):
                self._count(direction, len(data))
                sink.sendall(data)
            sink.shutdown(socket.SHUT_WR)
        except OSError:  # one side has gone
            pass
