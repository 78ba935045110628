"""Debian with all that the packages need, but not the packages: a root file system for one kind of board,
and the kernel. Making it takes minutes, so it is kept, named after what it was made of."""
import hashlib
import pathlib
import shutil
import subprocess
import tempfile

import namespace
from errors import Failure

here = pathlib.Path(__file__).resolve().parent
suite = "bookworm"
packages = """
    systemd systemd-sysv udev dbus kmod iproute2 procps libpam-modules libpam-runtime
    redis-server redis-tools nginx libnginx-mod-http-lua lua-cjson lua-luaossl
    openssl libhiredis0.14 libssl3 libstdc++6 curl ca-certificates logrotate
""".split()
left_out = ("/usr/share/man/*", "/usr/share/locale/*", "/usr/share/doc/*", "/usr/share/info/*")


def made(cache, board, log):
    """A folder of CACHE with root.tar, kernel.deb and busybox.deb; makes it when it is not there. What
    the programs print goes to LOG."""
    made_of = repr((suite, [*packages, *board.further_packages], left_out, board.kernel)).encode()
    folder = cache / f"root-{board.name}-{hashlib.sha256(made_of).hexdigest()[:12]}"
    if not folder.exists():
        cache.mkdir(parents=True, exist_ok=True)
        for old in cache.glob(f"root-{board.name}-*"):
            shutil.rmtree(old)
        with tempfile.TemporaryDirectory(dir=cache) as temporary:
            new = pathlib.Path(temporary) / "new"
            new.mkdir()
            make(new, board, log)
            new.rename(folder)
    return folder


def sources(wanted):
    """Lines for apt: this computer's own mirrors of Debian with the suites that are WANTED."""
    targets = subprocess.run(
        ["apt-get", "indextargets", "--format", "$(REPO_URI) $(RELEASE) $(COMPONENT)",
         "Created-By: Packages", "Origin: Debian"],
        check=True, text=True, capture_output=True).stdout
    lines = sorted({line for line in targets.splitlines() if wanted(line.split()[1])})
    if not any(line.split()[1] == suite for line in lines):
        raise Failure(f"apt knows no mirror of Debian's {suite}; does apt-get update help?")
    keys = "/usr/share/keyrings/debian-archive-keyring.gpg"
    return "".join(f"deb [signed-by={keys}] {line}\n" for line in lines)


def download_options():
    """What apt has been told about proxies and the like."""
    settings = subprocess.run(["apt-config", "dump"], check=True, text=True,
                              capture_output=True).stdout
    return [f"--aptopt={line.rstrip(';')}" for line in settings.splitlines()
            if line.startswith(("Acquire::http", "Acquire::Check-", "Acquire::Retries"))]


def make(folder, board, log):
    """With the suites of updates, too, unless the mirror has no whole index of them: they come later for
    some architectures than for others."""
    try:
        bootstrap(folder, board, sources(lambda name: name.startswith(suite)), log)
    except Failure:
        print("Once more, without updates:", file=log, flush=True)
        bootstrap(folder, board, sources(lambda name: name == suite), log)


def bootstrap(folder, board, lines, log):
    (folder / "sources").write_text(lines)
    with namespace.entered(board.emulator) as inside:
        inside.run(
            ["mmdebstrap", "--mode=root", "--variant=minbase",
             f"--architectures={board.architecture}",
             f"--include={','.join([*packages, *board.further_packages])}",
             *(f"--dpkgopt=path-exclude={path}" for path in left_out), *download_options(),
             f'--customize-hook="{here}/guest/download" {board.kernel} "{folder}"',
             suite, folder / "root.tar", folder / "sources"],
            stdout=log, stderr=log, stdin=subprocess.DEVNULL)
