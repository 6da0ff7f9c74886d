"""A TCP relay that counts what passes through it."""

import socket
import threading
import time


class Relay:
    """Listens on a free port of loopback and passes each connection on to another one. Counts connections, and the
    bytes of their content in both directions: what TCP carries, without its headers and those below it."""

    def __init__(self, port):
        self.target = port
        self.connections = self.sent = self.received = 0  # as the client sees it
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
        with self.lock:
            return {"connections": self.connections, "sent": self.sent, "received": self.received}

    def quiet_totals(self):
        """The totals once nothing has passed for a while, for what a client that has gone may still have on its way."""
        totals = self.totals()
        while True:
            time.sleep(0.1)
            former, totals = totals, self.totals()
            if former == totals:
                return totals

    def _accept(self):
        while True:
            try:
                client = self.listener.accept()[0]
            except OSError:  # closed
                return
            server = socket.create_connection(("127.0.0.1", self.target))
            with self.lock:
                self.connections += 1
            for source, sink, direction in ((client, server, "sent"), (server, client, "received")):
                source.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
                threading.Thread(target=self._pass_on, args=(source, sink, direction), daemon=True).start()

    def _pass_on(self, source, sink, direction):
        try:
            while data := source.recv(1 << 16):
                with self.lock:
                    setattr(self, direction, getattr(self, direction) + len(data))
                sink.sendall(data)
            sink.shutdown(socket.SHUT_WR)
        except OSError:  # one side has gone
            pass
