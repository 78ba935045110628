"""A user namespace in which an ordinary user may make another system's root file system, and in which
the kernel runs the programs of the board's processor by an emulator."""
import contextlib
import getpass
import os
import pathlib
import subprocess

from errors import Failure, Missing

binfmt = pathlib.Path("/proc/sys/fs/binfmt_misc")
users = 65536


def ids(kind):
    """How uidmap's programs are told: root there is this user, the others are lent by a table."""
    table, own = f"/etc/sub{kind}", os.getuid() if kind == "uid" else os.getgid()
    me = getpass.getuser()
    for line in pathlib.Path(table).read_text().splitlines():
        name, first, count = line.split(":")
        if name in (me, str(os.getuid())) and int(count) >= users:
            return ["0", str(own), "1", "1", first, str(users - 1)]
    raise Missing(f"{table} lends {me} no {users} ids, which a root file system needs.")


def map_ids(process):
    """Root keeps the ids as they are; for others uidmap's programs put theirs in."""
    for kind in ("uid", "gid"):
        if os.getuid() == 0:
            pathlib.Path(f"/proc/{process}/{kind}_map").write_text(f"0 0 {users}\n")
        else:
            subprocess.run([f"new{kind}map", str(process), *ids(kind)], check=True)


class Namespace:
    def __init__(self, holder):
        self.holder = holder

    def command(self, arguments):
        return ["nsenter", "--target", str(self.holder.pid), "--user", "--mount",
                "--setuid", "0", "--setgid", "0", "--wdns=" + os.getcwd(), *map(str, arguments)]

    def run(self, arguments, **options):
        return subprocess.run(self.command(arguments), check=True, text=True, **options)


def emulate(namespace, emulator):
    """Has the kernel run programs by the emulator: the whole computer's registration, if there is one,
    or else one of the namespace's own."""
    if (binfmt / emulator).exists():
        return
    registration = pathlib.Path(f"/usr/lib/binfmt.d/{emulator}.conf")
    script = (f"mount -t binfmt_misc binfmt_misc {binfmt} && "
              f"cat {registration} > {binfmt}/register")
    if subprocess.run(namespace.command(["sh", "-c", script]), check=False,
                      capture_output=True).returncode:
        raise Missing(f"This kernel has no binfmt_misc for a user namespace (Linux 6.7 or later has), "
                      f"and {emulator} is not registered with it either.")


@contextlib.contextmanager
def entered(emulator):
    """A namespace as long as the context lasts. EMULATOR is None for programs of this processor."""
    with subprocess.Popen(["unshare", "--user", "--mount", "sh", "-c", "echo ready && exec cat"],
                          stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE) as holder:
        try:
            if holder.stdout.readline() != b"ready\n":
                reason = holder.stderr.read().decode().strip()
                raise Missing(f"This computer refuses user namespaces to {getpass.getuser()}: {reason}")
            map_ids(holder.pid)
            namespace = Namespace(holder)
            if emulator:
                emulate(namespace, emulator)
            yield namespace
        except subprocess.CalledProcessError as error:
            raise Failure(f"{error.cmd[0]} ended with status {error.returncode}.") from error
        finally:
            holder.stdin.close()
