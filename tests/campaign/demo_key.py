"""The key to a seed of the simulated ECU: seed in hexadecimal on standard input, the resource as argument."""
import sys

resource, seed = int(sys.argv[-1]), bytes.fromhex(sys.stdin.read())
print(bytes((byte ^ 0x5A) + resource + i & 0xFF for i, byte in enumerate(seed)).hex())
