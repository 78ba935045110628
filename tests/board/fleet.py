"""Two boards that the example's play for Ansible installs, checks and reads, over ssh."""
import os
import pathlib
import re
import secrets
import shutil
import subprocess
import tempfile

from errors import Missing, must
from machine import Machine
from progress import step
from scenario import Scenario

top = pathlib.Path(__file__).resolve().parents[2]
playbook = top / "packaging/examples/ansible/boards.yml"
play_limit = 1200


class Fleet:
    """LOGS takes a folder for each board, FOLDER what Ansible and ssh need."""

    def __init__(self, board, disk, packages, logs, folder, details):
        self.folder = folder
        self.details = details
        (folder / "packages").mkdir()
        for package in packages:
            shutil.copy(package, folder / "packages")
        self.boards = {}
        for name in ("board-1", "board-2"):
            (logs / name).mkdir()
            machine = Machine(board, disk, logs / name)
            self.boards[name] = Scenario(machine, packages, details)

    def start(self):
        """Boots all of them and lets Ansible in."""
        key = self.folder / "key"
        subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", key], check=True)
        public = key.with_suffix(".pub").read_bytes()
        inventory = known = ""
        for name, scenario in self.boards.items():
            machine = scenario.machine
            machine.start()
            scenario.passwords = {"anna": secrets.token_urlsafe(12)}
            host_key = scenario.run(
                f"hostname {name}; systemctl start ssh.service; mkdir -p -m 700 /root/.ssh; "
                "cat >/root/.ssh/authorized_keys; cat /etc/ssh/ssh_host_ed25519_key.pub", public)
            scenario.run("useradd --user-group --groups sudo anna; chpasswd",
                         f"anna:{scenario.passwords['anna']}\n".encode())
            inventory += f"{name} ansible_host=127.0.0.1 ansible_port={machine.ssh_port}\n"
            known += f"[127.0.0.1]:{machine.ssh_port} {host_key}"
        (self.folder / "known_hosts").write_text(known)
        (self.folder / "boards.ini").write_text(
            f"[boards]\n{inventory}\n[boards:vars]\nansible_user=root\n"
            f"ansible_ssh_private_key_file={key}\n"
            f"ansible_ssh_common_args=-o UserKnownHostsFile={self.folder}/known_hosts\n"
            "ansible_python_interpreter=/usr/bin/python3\n")
        (self.folder / "ansible.cfg").write_text("[defaults]\n[ssh_connection]\npipelining = true\n")

    def play(self, *options):
        """Runs the play. Returns its status and what it said."""
        environment = dict(os.environ, ANSIBLE_CONFIG=str(self.folder / "ansible.cfg"),
                           ANSIBLE_NOCOLOR="1", HOME=str(self.folder), LC_ALL="C.UTF-8")
        played = subprocess.run(
            ["ansible-playbook", "-i", self.folder / "boards.ini", *options, playbook],
            env=environment, cwd=self.folder, text=True, check=False, timeout=play_limit,
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        print(played.stdout, file=self.details)
        return played.returncode, played.stdout

    def install(self):
        status, said = self.play("-e", f"packages={self.folder}/packages")
        must(status == 0, f"The play fails:\n{said}")
        must(said.count('"msg": "0 of 8 places taken"') == len(self.boards),
             f"It does not read the sessions of each:\n{said}")
        for scenario in self.boards.values():
            scenario.session = scenario.login()

    def repeat(self):
        status, said = self.play("-e", f"packages={self.folder}/packages")
        must(status == 0, f"The play fails:\n{said}")
        must(len(re.findall("changed=0 .* failed=0", said)) == len(self.boards),
             f"It changes something:\n{said}")
        must(said.count('"msg": "1 of 8 places taken: anna from 10.0.2.2"') == len(self.boards),
             f"It does not read the sessions of each:\n{said}")
        for name, scenario in self.boards.items():
            must(scenario.is_alive(scenario.session), f"The session on {name} has ended.")

    def stop_at_a_fault(self):
        first, second = self.boards.values()
        first.run("systemctl stop session-service-frontend.service")
        status, said = self.play("--tags", "check,sessions")
        must(status != 0, f"The play does not mind:\n{said}")
        must("Nobody answers over HTTPS" in said, f"It does not say what is wrong:\n{said}")
        must("board-2" not in said, f"It goes on to the next board:\n{said}")
        must(second.is_alive(second.session), "The session on the other one has ended.")


def live(board, disk, packages, logs, details):
    """All of it; raises errors.Failure where something is not as it should be."""
    for tool in ("ansible-playbook", "ssh", "ssh-keygen"):
        if not shutil.which(tool):
            raise Missing(f"This computer has no {tool}; scripts/install-packages fleet installs it.")
    with tempfile.TemporaryDirectory() as folder:
        fleet = Fleet(board, disk, packages, logs, pathlib.Path(folder), details)
        try:
            with step("Two boards boot and let Ansible in"):
                fleet.start()
            with step("The play installs the packages, sets them up, checks them"):
                fleet.install()
            with step("Once more, it changes nothing and shows who is logged in"):
                fleet.repeat()
            with step("It stops at a board that does not serve"):
                fleet.stop_at_a_fault()
        finally:
            for scenario in fleet.boards.values():
                scenario.machine.close()
    for scenario in fleet.boards.values():
        scenario.machine.image.unlink()
