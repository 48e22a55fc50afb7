"""A UDP relay between the tool and a simulated ECU.

It notes every command that the tool sends, and lets the ECU vanish or come back elsewhere under the same address.
"""
import select
import socket
import struct
import threading

NAMES = {0xFF: "CONNECT", 0xFE: "DISCONNECT", 0xFD: "GET_STATUS", 0xF4: "SHORT_UPLOAD", 0xF0: "DOWNLOAD",
         0xDD: "START_STOP_SYNCH", 0xDA: "GET_DAQ_PROCESSOR_INFO", 0xD6: "FREE_DAQ"}
STOP_ALL = b"\xDD\x00"


def udp_socket(port=None):
    """A socket on the loopback address, connected to a port if one is given."""
    made = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    made.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4 << 20)
    if port is None:
        made.bind(("127.0.0.1", 0))
    else:
        made.connect(("127.0.0.1", port))
    return made


class Relay:
    """Has the attributes `port`, `a2l` and `reach`, so that a relay can stand wherever a simulated ECU can."""

    def __init__(self, sim):
        self.sim = sim
        self.a2l = sim.a2l
        self.change = lambda datagram: datagram  # what becomes of each datagram of the ECU
        self.commands = []  # each command packet without its header, in the order sent
        self.front = udp_socket()
        self.port = self.front.getsockname()[1]
        self.reach = ["--udp", f"127.0.0.1:{self.port}"]
        self.back = udp_socket(sim.port)
        self.abyss = udp_socket()  # never read
        self.hole = udp_socket(self.abyss.getsockname()[1])
        self.waker, self.wakened = socket.socketpair()
        self.opened = [self.front, self.back, self.abyss, self.hole, self.waker, self.wakened]
        self.ended = False
        self.thread = threading.Thread(target=self.run, daemon=True)
        self.thread.start()

    def aim(self, sim):
        """Commands go to this ECU from now on, and only its packets come back."""
        self.opened.append(udp_socket(sim.port))
        self.resume(self.opened[-1])

    def hide(self):
        """From now on there is no ECU, only silence."""
        self.resume(self.hole)

    def resume(self, back):
        """Commands go to where this former `back` leads."""
        self.back = back
        self.waker.send(b"x")

    def inject(self, command):
        """Sends a command of its own to the ECU; the answer goes to the tool."""
        self.back.send(struct.pack("<HH", len(command), 0) + command)

    def close(self):
        self.ended = True
        self.waker.send(b"x")
        self.thread.join()
        for each in self.opened:
            each.close()

    def names(self):
        return [NAMES.get(command[0], hex(command[0])) for command in list(self.commands)]

    def run(self):
        client = None
        while not self.ended:
            back = self.back
            ready = select.select([self.front, back, self.wakened], [], [])[0]
            try:
                if self.wakened in ready:
                    self.wakened.recv(1)
                if back in ready:
                    packet = back.recv(65536)
                    if client and back is self.back:
                        self.front.sendto(self.change(packet), client)
                if self.front in ready:
                    packet, client = self.front.recvfrom(65536)
                    self.commands.append(packet[4:])
                    back.send(packet)
            except ConnectionRefusedError:
                pass  # no ECU there: the tool is to see nothing but silence
