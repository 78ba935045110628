"""What a board starts from: the disk with Debian, set up to take scripts; kernel, initramfs and device
tree. Kept, named after what they were made of."""
import gzip
import hashlib
import os
import pathlib
import secrets
import shutil
import subprocess
import tempfile

import namespace
import rootfs

guest = pathlib.Path(__file__).resolve().parent / "guest"
size = "700M"


class Disk:
    """The files of one board, in a folder of the cache."""

    def __init__(self, folder, board):
        self.image = folder / "disk.img"
        self.kernel = folder / "kernel"
        self.initramfs = folder / "initramfs"
        self.device_tree = folder / board.device_tree if board.device_tree else None
        self.token = (folder / "token").read_text()


def made(cache, board, log):
    """The board's files from CACHE, which is a folder; makes them when they are not there. What the
    programs print goes to LOG."""
    root = rootfs.made(cache, board, log)
    digest = hashlib.sha256(repr((root.name, board.modules, size)).encode())
    for file in [pathlib.Path(__file__), *sorted(guest.iterdir())]:
        digest.update(file.read_bytes())
    folder = cache / f"{board.name}-{digest.hexdigest()[:12]}"
    if not folder.exists():
        for old in cache.glob(f"{board.name}-*"):
            shutil.rmtree(old)
        with tempfile.TemporaryDirectory(dir=cache) as temporary:
            new = pathlib.Path(temporary) / "new"
            new.mkdir()
            (new / "token").write_text(secrets.token_hex(16))
            make_image(root, new, log)
            make_start(root, new, board, log)
            new.rename(folder)
    return Disk(folder, board)


def make_image(source, folder, log):
    root = folder.parent / "root"
    with namespace.entered(None) as inside:
        try:
            inside.run(["mkdir", root])
            inside.run(["tar", "-x", "-f", source / "root.tar", "-C", root, "--numeric-owner",
                        "--xattrs", "--xattrs-include=*", "--exclude=./dev/*"], stdout=log, stderr=log)
            inside.run([guest / "configure", root, guest, folder / "token"], stdout=log, stderr=log)
            inside.run(["mke2fs", "-q", "-F", "-t", "ext4", "-L", "board", "-d", root,
                        folder / "disk.img", size], stdout=log, stderr=log)
        finally:
            inside.run(["rm", "-rf", root], stdout=log, stderr=log)


def make_start(source, folder, board, log):
    """Kernel, device tree, and the few modules that the disk and the network need, in the order in which
    they are loaded."""
    unpacked = folder.parent / "unpacked"
    for package in ("kernel", "busybox"):
        subprocess.run(["dpkg", "-x", source / f"{package}.deb", unpacked], check=True, stdout=log,
                       stderr=log)
    release = next((unpacked / "lib/modules").iterdir()).name
    shutil.copy(unpacked / f"boot/vmlinuz-{release}", folder / "kernel")
    if board.device_tree:
        shutil.copy(next(unpacked.glob(f"usr/lib/linux-image-*/{board.device_tree}")),
                    folder / board.device_tree)

    tree = folder.parent / "initramfs"
    modules = tree / "modules"
    modules.mkdir(parents=True)
    (tree / "bin").mkdir()
    shutil.copy(unpacked / "bin/busybox", tree / "bin/busybox")
    shutil.copy(guest / "init", tree / "init")
    environment = dict(os.environ, PATH=os.environ["PATH"] + ":/usr/sbin:/sbin")
    subprocess.run(["depmod", "-b", unpacked, release], check=True, stdout=log, stderr=log,
                   env=environment)
    order = []
    for module in board.modules:
        shown = subprocess.run(
            ["modprobe", "--show-depends", "-d", unpacked, "-S", release, module],
            check=True, text=True, stdout=subprocess.PIPE, stderr=log, env=environment).stdout
        for line in shown.splitlines():
            kind, *rest = line.split()
            if kind == "insmod" and pathlib.Path(rest[0]).name not in order:
                order.append(pathlib.Path(rest[0]).name)
                shutil.copy(rest[0], modules)
    (modules / "order").write_text("".join(f"{name}\n" for name in order))

    names = "".join(f"{path.relative_to(tree)}\n" for path in sorted(tree.rglob("*")))
    archive = subprocess.run(["cpio", "--quiet", "-o", "-H", "newc", "-R", "0:0"], cwd=tree,
                             input=names.encode(), check=True, stdout=subprocess.PIPE,
                             stderr=log).stdout
    (folder / "initramfs").write_bytes(gzip.compress(archive, mtime=0))
