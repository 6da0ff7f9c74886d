"""Counts the packets of one TCP port on loopback; who is not root gets a PermissionError."""

import contextlib
import socket
import struct
import threading

ETH_P_IP, ETH_P_ALL = 0x0800, 0x0003
SOL_PACKET, PACKET_STATISTICS, OUTGOING = 263, 6, 4
SO_RCVBUFFORCE = 33
TCP = 6


class PacketCounter:
    """From its making to end(): packets and bytes, IP header and all, by direction."""

    def __init__(self, port):
        self.port = port
        self.counts = {"to_mirror": 0, "from_mirror": 0, "packets": 0}
        self.socket = socket.socket(socket.AF_PACKET, socket.SOCK_DGRAM, socket.htons(ETH_P_ALL))
        with contextlib.suppress(PermissionError):  # beyond net.core.rmem_max
            self.socket.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, 64 << 20)
        self.socket.bind(("lo", ETH_P_ALL))
        self.socket.settimeout(0.2)
        self.running = True
        self.thread = threading.Thread(target=self._run, daemon=True)
        self.thread.start()

    def end(self):
        """Stops, and returns the counts; none may have been lost."""
        self.running = False
        self.thread.join()
        _, lost = struct.unpack("II", self.socket.getsockopt(SOL_PACKET, PACKET_STATISTICS, 8))
        self.socket.close()
        assert lost == 0, f"{lost} packets were not counted"
        return self.counts

    def _run(self):
        while self.running:
            try:
                head, address = self.socket.recvfrom(64)
            except TimeoutError:
                continue
            if address[1] == ETH_P_IP and address[2] == OUTGOING and head[9] == TCP:
                self._count(head)

    def _count(self, head):
        begin = (head[0] & 15) * 4
        source, target = struct.unpack("!HH", head[begin : begin + 4])
        if self.port in (source, target):
            self.counts["packets"] += 1
            self.counts["from_mirror" if source == self.port else "to_mirror"] += int.from_bytes(head[2:4], "big")
