"""The guest's kernel and modules, made from Debian's packages once per kernel version and kept in a cache.

A version's folder in the cache holds `vmlinux` (uncompressed: it boots twice as fast), `modules` (those of the kernel
package and the CAN FD controller's, which Debian does not build), `headers` (packages, to build our own module when it
changes) and `ready`, which is written last.
"""
import fcntl
import hashlib
import lzma
import os
import re
import shutil
import subprocess
import tempfile
from pathlib import Path

HERE = Path(__file__).resolve().parent
METAPACKAGE = "linux-image-amd64"
# In the order in which they are loaded.
PACKAGED = ("virtio_ring", "virtio", "virtio_pci_modern_dev", "virtio_pci_legacy_dev", "virtio_pci", "netfs", "fscache",
            "9pnet", "9pnet_virtio", "9p", "overlay", "can-dev", "can", "can-raw", "vcan", "sja1000", "kvaser_pci")
CONTROLLER = ("ctucanfd", "ctucanfd_pci")
OWN = ("fcan",)
DRIVER = "drivers/net/can/ctucanfd"
XZ_MAGIC = b"\xfd7zXZ\0"


class BenchError(Exception):
    """Why the bench cannot run, in one line."""


def output(*command, cwd=None):
    """What a program prints; its last line is the reason when it fails."""
    done = subprocess.run(command, cwd=cwd, capture_output=True, text=True, check=False,
                          env=dict(os.environ, LC_ALL="C.UTF-8"))
    if done.returncode != 0:
        lines = [line for line in (done.stderr + done.stdout).splitlines() if line.strip()]
        told = next((line for line in lines if line.startswith("E: ")), lines[-1] if lines else "no reason given")
        raise BenchError(f"{command[0]}: {told.removeprefix('E: ')}")
    return done.stdout


def wanted_kernel():
    """Package and version of the kernel that the metapackage names now; None when apt has no lists."""
    found = re.search(r"Depends: (linux-image-\S+)", output("apt-cache", "depends", METAPACKAGE))
    if not found:
        return None
    version = re.search(r"Candidate: (\S+)", output("apt-cache", "policy", found.group(1)))
    return (found.group(1), version.group(1)) if version else None


def download(packages, directory):
    """Fetches packages, given as NAME or NAME=VERSION, into a directory."""
    directory.mkdir(exist_ok=True)
    # As root apt would warn that its own user cannot write here.
    output("apt-get", "-o", "APT::Sandbox::User=root", "-qq", "download", *packages, cwd=directory)


def unpack(packages, directory):
    for package in packages:
        output("dpkg-deb", "-x", str(package), str(directory))


def uncompressed(vmlinuz):
    """The kernel itself out of its self-extracting image."""
    at = vmlinuz.find(XZ_MAGIC)
    if at < 0:
        raise BenchError("the kernel image holds no xz stream")
    return lzma.LZMADecompressor(format=lzma.FORMAT_XZ).decompress(vmlinuz[at:])


def extract_kernel(package, release, folder, work):
    """The kernel and its modules out of the kernel package."""
    unpack([package], work)
    (folder / "vmlinux").write_bytes(uncompressed((work / f"boot/vmlinuz-{release}").read_bytes()))
    files = {path.stem: path for path in (work / f"lib/modules/{release}/kernel").rglob("*.ko")}
    missing = [name for name in PACKAGED if name not in files]
    if missing:
        raise BenchError(f"{package.name} has no module {missing[0]}")
    (folder / "modules").mkdir(exist_ok=True)
    for name in PACKAGED:
        shutil.copy(files[name], folder / "modules")


def build_module(headers, release, source, settings, work):
    """Builds the modules of a source folder; returns the work folder that holds them."""
    root = Path(tempfile.mkdtemp(dir=work))
    unpack(sorted(headers.glob("*.deb")), root)
    tree = root / f"usr/src/linux-headers-{release}"
    # The packages expect to lie in the root directory.
    makefile = tree / "Makefile"
    makefile.write_text(makefile.read_text().replace("/usr/src/", f"{root}/usr/src/"))
    built = root / "module"
    shutil.copytree(source, built)
    output("make", "-s", "-C", str(tree), f"M={built}", *settings, "modules")
    for module in built.glob("*.ko"):
        output("strip", "-g", str(module))
    return built


def prepare(package, version, folder):
    """Fills the folder of a kernel version."""
    release = package.removeprefix("linux-image-")
    flavour = release.rsplit("-", 1)[1]
    short = ".".join(release.split(".")[:2])
    print(f"CAN bench: fetching {package} {version} and building its modules, once", flush=True)
    with tempfile.TemporaryDirectory(dir=folder) as name:
        work = Path(name)
        headers = [f"linux-headers-{release}", f"linux-headers-{release.removesuffix(flavour)}common",
                   f"linux-kbuild-{short}"]
        depends = output("apt-cache", "depends", f"{headers[0]}={version}")
        headers.append(re.search(r"(linux-compiler-\S+)", depends).group(1))
        download([f"{name}={version}" for name in headers], folder / "headers")
        download([f"{package}={version}", f"linux-source-{short}={version}"], work)
        extract_kernel(next(work.glob("linux-image-*.deb")), release, folder, work / "image")
        unpack(work.glob("linux-source-*.deb"), work / "source")
        archive = next((work / "source/usr/src").glob("linux-source-*.tar.xz"))
        output("tar", "-C", str(work), "-xJf", str(archive), f"linux-source-{short}/{DRIVER}")
        built = build_module(folder / "headers", release, work / f"linux-source-{short}" / DRIVER,
                             ["CONFIG_CAN_CTUCANFD=m", "CONFIG_CAN_CTUCANFD_PCI=m"], work)
        for name in CONTROLLER:
            shutil.copy(built / f"{name}.ko", folder / "modules")
    (folder / "ready").write_text(release)


def own_module(folder):
    """Builds our own module unless its present text has been built for this kernel."""
    source = HERE / "fcan"
    text = b"".join(path.read_bytes() for path in sorted(source.iterdir()))
    stamp = folder / "fcan.sha256"
    digest = hashlib.sha256(text).hexdigest()
    if stamp.exists() and stamp.read_text() == digest:
        return
    with tempfile.TemporaryDirectory(dir=folder) as work:
        built = build_module(folder / "headers", (folder / "ready").read_text(), source, [], work)
        for name in OWN:
            shutil.copy(built / f"{name}.ko", folder / "modules")
    stamp.write_text(digest)


def guest_kernel(cache):
    """The folder of the kernel to boot: the one that Debian offers now or, when it cannot be had, a cached one."""
    try:
        cache.mkdir(parents=True, exist_ok=True)
    except OSError as error:
        raise BenchError(f"cannot make the cache {cache}: {error.strerror}") from None
    with open(cache / "lock", "w", encoding="ascii") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)  # two runs at once must not build the same
        try:
            wanted = wanted_kernel()
            if not wanted:
                raise BenchError("apt knows no kernel package; `apt-get update` fetches its lists")
            folder = cache / "_".join(wanted)
            if not (folder / "ready").exists():
                shutil.rmtree(folder, ignore_errors=True)
                folder.mkdir()
                try:
                    prepare(*wanted, folder)
                except BenchError:
                    shutil.rmtree(folder)
                    raise
        except BenchError as error:
            ready = sorted(cache.glob("*/ready"), key=lambda path: path.stat().st_mtime)
            if not ready:
                raise
            folder = ready[-1].parent
            print(f"CAN bench: {error}; going on with {folder.name} from the cache", flush=True)
        own_module(folder)
    return folder


def modules(folder):
    """The module files in the order in which they are loaded."""
    return [folder / "modules" / f"{name}.ko" for name in (*PACKAGED, *CONTROLLER, *OWN)]
