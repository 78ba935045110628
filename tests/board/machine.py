"""One running board."""
import contextlib
import json
import shutil
import signal
import socket
import subprocess
import time

from errors import Failure, Missing

boot_limit = 300
script_limit = 300


def free_ports(count):
    """Ports of the loopback interface that nobody uses at the moment."""
    with contextlib.ExitStack() as open_sockets:
        found = [open_sockets.enter_context(socket.socket()) for _ in range(count)]
        for each in found:
            each.bind(("127.0.0.1", 0))
        return [each.getsockname()[1] for each in found]


def until(what, limit, holds):
    """Calls HOLDS until it returns something true, which is returned."""
    end = time.monotonic() + limit
    while True:
        result = holds()
        if result:
            return result
        if time.monotonic() > end:
            raise Failure(f"{what}: not within {limit} s.")
        time.sleep(0.1)


class Machine:
    """FOLDER keeps disk.qcow2, which begins as a copy of the Disk's image, and console.log."""

    def __init__(self, board, disk, folder):
        self.board = board
        self.disk = disk
        self.folder = folder
        self.image = folder / "disk.qcow2"
        self.console = folder / "console.log"
        self.mount_options = "defaults"
        self.process = None
        self.started = None
        self.script_port = self.https_port = self.http_port = self.ssh_port = None
        # A memory card's size is a power of two; the file system is smaller.
        subprocess.run(["qemu-img", "create", "-q", "-f", "qcow2", "-F", "raw", "-b", disk.image,
                        self.image, "1G"], check=True)

    def start(self, snapshot=None):
        """Boots, or goes on where the snapshot was made; returns when scripts can run."""
        self.script_port, self.https_port, self.http_port, self.ssh_port = free_ports(4)
        forwards = "".join(
            f",hostfwd=tcp:127.0.0.1:{outside}-:{inside}" for outside, inside in
            ((self.script_port, 2222), (self.https_port, 443), (self.http_port, 80),
             (self.ssh_port, 22)))
        on_card = self.board.disk_options == ("sd",)
        # The kernel takes what a card has accepted for written, and never has it flushed. Where the power
        # will go, QEMU must not keep it either.
        cache = "writethrough" if on_card and snapshot else "writeback"
        drive = f"file={self.image},format=qcow2,cache={cache}," + (
            "if=sd,index=2" if on_card else "if=none,id=disk")
        command = [
            *self.board.qemu, "-m", self.board.memory, "-nographic", "-nodefaults",
            "-no-reboot", "-accel", "tcg,thread=multi",
            "-kernel", self.disk.kernel, "-initrd", self.disk.initramfs,
            *(["-dtb", self.disk.device_tree] if self.disk.device_tree else []),
            "-append", f"console={self.board.console} root={self.board.disk} net.ifnames=0 "
                       f"rootflags={self.mount_options} panic=-1 systemd.show_status=yes",
            "-drive", drive, *(() if on_card else self.board.disk_options),
            "-netdev", f"user,id=net,restrict=on{forwards}", *self.board.network_options,
            "-monitor", "none", "-qmp", f"unix:{self.folder}/monitor,server=on,wait=off",
            "-chardev", f"file,id=console,path={self.console},append=on",
            "-serial", "chardev:console",
            *(["-loadvm", snapshot] if snapshot else [])]
        self.started = time.monotonic()
        with open(self.folder / "qemu.log", "ab") as log:
            self.process = subprocess.Popen(list(map(str, command)), stdin=subprocess.DEVNULL,
                                            stdout=log, stderr=log)
        self.wait_until_it_takes_scripts()

    def wait_until_it_takes_scripts(self):
        until("The board takes scripts", boot_limit, lambda: self.attempt("true", limit=30) == (0, ""))

    def attempt(self, script, data=b"", limit=script_limit):
        """The script's status and output; None when nobody takes it."""
        if self.process.poll() is not None:
            raise Failure(f"QEMU ended with status {self.process.returncode}, see "
                          f"{self.folder}/qemu.log.")
        answer = b""
        try:
            with socket.create_connection(("127.0.0.1", self.script_port), timeout=limit) as stream:
                stream.sendall(f"{self.disk.token}\n{script}\0".encode() + data)
                stream.shutdown(socket.SHUT_WR)
                while block := stream.recv(65536):
                    answer += block
        except OSError:
            return None
        output, zero, status = answer.rpartition(b"\0")
        return (int(status), output.decode(errors="replace")) if zero else None

    def run(self, script, data=b"", limit=script_limit):
        """The output of a script that has to succeed."""
        answer = self.attempt(script, data, limit)
        if answer is None:
            raise Failure(f"The board did not answer to: {script}")
        status, output = answer
        if status:
            raise Failure(f"Status {status} of: {script}\n{output}")
        return output

    def monitor(self, command, **arguments):
        with socket.socket(socket.AF_UNIX) as connection:
            connection.settimeout(script_limit)
            connection.connect(str(self.folder / "monitor"))
            stream = connection.makefile("rw")
            stream.readline()
            for name, values in (("qmp_capabilities", {}), (command, arguments)):
                json.dump({"execute": name, "arguments": values}, stream)
                stream.flush()
                answer = {}
                while not {"return", "error"} & answer.keys():
                    answer = json.loads(stream.readline())
        if answer.get("error") or answer.get("return"):
            raise Failure(f"QEMU's answer to {command}: {answer}")

    def save(self, snapshot):
        self.monitor("human-monitor-command", **{"command-line": f"savevm {snapshot}"})

    def cut_power(self):
        self.process.send_signal(signal.SIGKILL)
        self.process.wait()

    def shut_down(self):
        """As somebody would at the board: everything is stopped and written. QEMU ends where the board
        would start again: not every board can switch itself off."""
        self.attempt("systemctl reboot")
        try:
            self.process.wait(boot_limit)
        except subprocess.TimeoutExpired:
            raise Failure(f"The board did not shut down within {boot_limit} s.") from None

    def reboot(self):
        self.shut_down()
        self.start()

    def close(self):
        if self.process and self.process.poll() is None:
            self.cut_power()


def require_tools(board):
    """Raises Missing, with a sentence, when this computer lacks a program."""
    for tool in (board.qemu[0], "qemu-img", "mmdebstrap", "nsenter"):
        if not shutil.which(tool):
            raise Missing(f"This computer has no {tool}; scripts/install-packages board installs it.")
