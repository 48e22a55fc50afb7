"""Boots the guest: the host's own root, read only, under a kernel with CAN, vcan and emulated controllers.

In the guest can0 and can1 are classic controllers on one bus, can2 and can3 CAN FD controllers on another, fcan0 and
fcan1 the pair that has faults on order.
"""
import shutil
import subprocess
import sys
import threading
from pathlib import Path

from guest_kernel import HERE, BenchError, modules

QEMU = "qemu-system-x86_64"
BUSYBOX = "/bin/busybox"


def archive(entries):
    """An initial file system: cpio in the kernel's format, uncompressed."""
    out = bytearray()
    for number, (name, mode, data) in enumerate([*entries, ("TRAILER!!!", 0, b"")], 1):
        fields = (number, mode, 0, 0, 1, 0, len(data), 0, 0, 0, 0, len(name) + 1, 0)
        out += b"070701" + b"".join(b"%08X" % field for field in fields) + name.encode() + b"\0"
        out += bytes(-len(out) % 4) + data
        out += bytes(-len(out) % 4)
    return bytes(out)


def initial_files(kernel):
    files = modules(kernel)
    order = "\n".join(path.stem for path in files).encode()
    entries = [("busybox", 0o100755, Path(BUSYBOX).read_bytes()), ("init", 0o100755, (HERE / "init").read_bytes()),
               ("modules", 0o040755, b""), ("modules/order", 0o100644, order)]
    return archive(entries + [(f"modules/{path.name}", 0o100644, path.read_bytes()) for path in files])


def command(kernel, work):
    return [
        QEMU, "-M", "pc,accel=tcg", "-cpu", "qemu64", "-smp", "2", "-m", "1536", "-no-reboot", "-nodefaults",
        "-serial", "stdio", "-display", "none", "-net", "none", "-kernel", str(kernel / "vmlinux"),
        "-initrd", str(work / "initrd"), "-append", "console=ttyS0 quiet panic=-1",
        "-virtfs", "local,path=/,mount_tag=hostroot,security_model=none,readonly=on,multidevs=remap",
        "-virtfs", f"local,path={work},mount_tag=hostout,security_model=none",
        "-object", "can-bus,id=cb0", "-device", "kvaser_pci,canbus=cb0", "-device", "kvaser_pci,canbus=cb0",
        "-object", "can-bus,id=cb1", "-device", "ctucan_pci,canbus0=cb1,canbus1=cb1"]


def run(kernel, work, script, limit):
    """Runs a shell script in the guest, whose output is shown as it comes; returns the script's exit status.

    The work folder is /bench in the guest. A guest that is not done after `limit` seconds is killed.
    """
    for name in (QEMU, BUSYBOX):
        if not shutil.which(name):
            raise BenchError(f"{name} is missing; scripts/test --can installs it")
    (work / "initrd").write_bytes(initial_files(kernel))
    (work / "guest.sh").write_text(script)
    (work / "status").unlink(missing_ok=True)
    with subprocess.Popen(command(kernel, work), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT) as guest:
        late = []
        timer = threading.Timer(limit, lambda: (late.append(True), guest.kill()))
        timer.start()
        try:
            for line in guest.stdout:
                # The kernel's last word is of no interest, and what comes before is to stand last.
                if b"reboot: Power down" in line:
                    continue
                # The console ends lines with CR LF; what the boot sends to clear a screen is not for ours.
                sys.stdout.buffer.write(line.replace(b"\r", b"").replace(b"\x1bc", b""))
                sys.stdout.flush()
        finally:
            timer.cancel()
            guest.kill()
    if late:
        raise BenchError(f"the guest was not done after {limit} s; its console is above")
    try:
        return int((work / "status").read_text())
    except (OSError, ValueError):
        raise BenchError("the guest ended without a result; its console is above") from None
