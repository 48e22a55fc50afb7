"""Memory of the simulated ECU, read and written over UDP without the tool."""
import socket
import struct


class RawMaster:
    """Speaks to one ECU; whoever connects after it takes the ECU over."""

    def __init__(self, port):
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.connect(("127.0.0.1", port))
        self.socket.settimeout(20)
        self.counter = 0
        self.most = self.ask(b"\xff\x00")[3]

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()

    def ask(self, packet):
        self.socket.send(struct.pack("<HH", len(packet), self.counter) + packet)
        self.counter = self.counter + 1 & 0xFFFF
        answer = self.socket.recv(2048)[4:]
        if answer[0] != 0xFF:
            raise AssertionError(f"{packet.hex()} was answered by {answer.hex()}")
        return answer

    def point(self, address):
        self.ask(struct.pack("<BHBI", 0xF6, 0, 0, address))

    def write(self, address, data):
        self.point(address)
        for at in range(0, len(data), self.most - 2):
            piece = data[at:at + self.most - 2]
            self.ask(bytes((0xF0, len(piece))) + piece)

    def read(self, address, size):
        self.point(address)
        return b"".join(self.ask(bytes((0xF5, min(self.most - 1, size - at))))[1:] for at in range(0, size, self.most - 1))
