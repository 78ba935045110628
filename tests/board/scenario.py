"""What a board goes through in its life. Each step is a function that begins where the one before it
ended; the first line of its description is what a person sees."""
import http.client
import io
import pathlib
import re
import secrets
import subprocess
import tarfile
import tempfile
import time

from client import Client, service, sessions
from errors import Failure, must
from machine import until

service_limit = 300
timeout = 4321
properties = "/var/nginx/SessionPersistentProp.conf"
account_groups = {"anna": "redfish-administrators", "olaf": "redfish-operators", "rita": None,
                  "hans": "redfish-operators"}


class Scenario:
    """What the steps share. PACKAGES are the files of the packages just built."""

    def __init__(self, machine, packages, details):
        self.machine = machine
        self.details = details  # a file for what a person may want to know
        self.packages = packages
        self.passwords = {name: secrets.token_urlsafe(12) for name in account_groups}
        self.session = None  # of an administrator, alive from step to step
        self.files = None  # all there were before the packages
        self.report = []  # lines for the person, after the steps

    def client(self):
        return Client(self.machine.https_port)

    def ask(self, *arguments, **more):
        with self.client() as client:
            return client.ask(*arguments, **more)

    def expect(self, *arguments, **more):
        with self.client() as client:
            return client.expect(*arguments, **more)

    def login(self, user="anna"):
        """A session, as soon as the board serves: 503 and a lost connection mean "later"."""
        def attempt():
            try:
                with self.client() as client:
                    status, session = client.try_login(user, self.passwords[user])
            except (OSError, http.client.HTTPException):
                return None
            must(session or status == 503, f"The login of {user}: {status}")
            return session

        return until("Somebody can log in", service_limit, attempt)

    def logout(self, session):
        self.expect(204, "DELETE", session.uri, session)

    def is_alive(self, session):
        """Whether its token is good; that counts as a use."""
        status, _, content = self.ask("GET", service, session)
        if status not in (200, 401):
            raise Failure(f"A token gets {status}: {content}")
        return status == 200

    def run(self, script, data=b"", limit=300):
        return self.machine.run(script, data, limit)

    def property(self):
        """The timeout that the property file holds, as text."""
        found = re.findall(r"^SessionTimeout=(.*)$", self.run(f"cat {properties}"), re.MULTILINE)
        return found[0] if len(found) == 1 else None


def install(scenario):
    """The packages are installed"""
    scenario.files = list_files(scenario)
    install_packages(scenario, scenario.packages)


def install_packages(scenario, packages, options=""):
    archive = io.BytesIO()
    with tarfile.open(fileobj=archive, mode="w") as tar:
        for package in packages:
            tar.add(package, package.name)
    scenario.run("mkdir /tmp/packages && tar -x -C /tmp/packages --no-same-owner && "
                 f"apt-get install --yes --quiet {options} /tmp/packages/*.deb && "
                 "rm -r /tmp/packages", archive.getvalue())


def list_files(scenario):
    return set(scenario.run("find / -xdev -not -path '/root/*' -not -path '/tmp/*'").splitlines())


def set_up(scenario):
    """session-service-setup makes a controller of it, and nothing twice"""
    joining = "".join(f"usermod --append --groups {group} {user}\n"
                      for user, group in account_groups.items() if group)
    scenario.run(f"for user in {' '.join(account_groups)}; do\n"
                 f"useradd --shell /usr/sbin/nologin $user\ndone\n{joining}chpasswd\n"
                 "grep --quiet '^anna:[$]y[$]' /etc/shadow",
                 "".join(f"{user}:{word}\n" for user, word in scenario.passwords.items()).encode())
    scenario.run("session-service-setup")
    again = scenario.run("session-service-setup")
    must("Everything is set up already." in again, f"It does things twice:\n{again}")


def log_in(scenario):
    """A local account logs in over HTTPS"""
    scenario.session = scenario.login()
    members = scenario.expect(200, "GET", sessions, scenario.session)
    must(members["Members@odata.count"] == 1, f"Not one session: {members}")


def refuse(scenario):
    """Wrong passwords, unknown names and accounts without a role are refused"""
    with scenario.client() as client:
        for user, password in (("anna", "wrong"), ("nobody", scenario.passwords["anna"])):
            status, _ = client.try_login(user, password)
            must(status == 401, f"{user} with a wrong password: {status}")
        status, _ = client.try_login("rita", scenario.passwords["rita"])
        must(status in (401, 403), f"An account without a role: {status}")


def use_roles(scenario):
    """An operator may read, but not change the settings; an administrator may"""
    olaf = scenario.login("olaf")
    scenario.expect(200, "GET", service, olaf)
    scenario.expect(403, "PATCH", service, olaf, {"SessionTimeout": timeout + 1})
    scenario.logout(olaf)
    must(not scenario.is_alive(olaf), "A session lives on after its logout.")
    changed = scenario.expect(200, "PATCH", service, scenario.session, {"SessionTimeout": timeout})
    must(changed["SessionTimeout"] == timeout, f"The change is not shown: {changed}")
    must(scenario.property() == str(timeout), "The property file does not hold the change.")


def check(scenario):
    """sessionctl check has nothing to object to"""
    status, output = scenario.machine.attempt("sessionctl check")
    bad = [line for line in output.splitlines() if line.startswith(("warning", "FAILED"))]
    must(not bad and status == 0, f"Status {status}:\n{output}")


def measure_exposure(scenario):
    """The units keep their processes in"""
    units = scenario.run("systemctl list-unit-files --no-legend 'session-service*.service' | "
                         "awk '{print $1}'").split()
    worst = 2.5
    for unit in units:
        overall = scenario.run(f"systemd-analyze security --no-pager {unit} | tail -n 1")
        exposure = float(re.search(r"([0-9.]+) [A-Z]+", overall).group(1))
        scenario.report.append(f"  {unit:40} exposure {exposure}")
        must(exposure <= worst, f"{unit} is exposed: {exposure} of 10, not {worst}")


def measure_memory(scenario):
    """What each process takes"""
    rows = scenario.run(r"""
        for process in /proc/[0-9]*; do
            [ -r "$process/smaps_rollup" ] || continue
            awk -v name="$(cat "$process/comm")" '
                /^Rss:/ { rss = $2 } /^Pss:/ { pss = $2 } /^Private/ { private += $2 }
                END { print name, rss, pss, private }' "$process/smaps_rollup"
        done 2>/dev/null | sort -k 3 -n -r""").splitlines()
    free = scenario.run("awk '/^MemTotal|^MemAvailable/ { print $2 }' /proc/meminfo").split()
    scenario.report.append(f"  {'KiB':24} {'resident':>9} {'proportional':>13} {'private':>9}")
    for row in rows:
        name, *figures = row.split()
        # What runs this script itself does not count.
        if len(figures) == 3 and name not in ("run-script", "bash", "awk", "cat", "sort"):
            scenario.report.append("  {:24} {:>9} {:>13} {:>9}".format(name, *figures))
    scenario.report.append(f"  available {free[1]} of {free[0]} KiB")


def lose_the_store(scenario):
    """The store is stopped and comes back: settings stay, sessions are gone"""
    old = scenario.session
    scenario.run("systemctl stop session-service-store.service")
    scenario.run("systemctl start session-service-store.service")
    scenario.session = scenario.login()
    must(not scenario.is_alive(old), "A session outlived the store.")
    shown = scenario.expect(200, "GET", service, scenario.session)["SessionTimeout"]
    must(shown == timeout, f"The timeout is {shown}, not {timeout}.")
    members = scenario.expect(200, "GET", sessions, scenario.session)["Members"]
    must([member["@odata.id"] for member in members] == [scenario.session.uri],
         f"There are other sessions: {members}")
    processes = scenario.run("pgrep --exact session-service").split()
    must(len(processes) == 1, f"There are {len(processes)} session services.")
    check(scenario)


def seed_slowly(scenario):
    """Seeding the store is slow: the service waits for it"""
    scenario.run(r"""
        folder=/run/systemd/system/session-service-seed.service.d
        mkdir -p $folder
        printf '[Service]\nExecStartPre=sleep 5\n' >$folder/slow.conf
        systemctl daemon-reload
        systemctl restart session-service-store.service""")
    scenario.session = scenario.login()
    seeded, started = (int(scenario.run(f"systemctl show --value --property={what} {unit}.service"))
                       for unit, what in (("session-service-seed", "ActiveEnterTimestampMonotonic"),
                                          ("session-service", "ExecMainStartTimestampMonotonic")))
    must(seeded < started, f"Seeded after {seeded} us, and the service has run since {started} us.")
    shown = scenario.expect(200, "GET", service, scenario.session)["SessionTimeout"]
    must(shown == timeout, f"The timeout is {shown}, not {timeout}.")
    scenario.run("rm -r /run/systemd/system/session-service-seed.service.d; systemctl daemon-reload")


def kill_the_daemon(scenario):
    """The service is killed: the sessions stay"""
    scenario.run("systemctl kill --kill-whom=main --signal=KILL session-service.service")
    scenario.logout(scenario.login())
    must(scenario.is_alive(scenario.session), "A session went with the process.")


def rotate_logs(scenario):
    """The front end's logs are rotated, and it goes on in new ones"""
    log = "/var/log/session-service-frontend/access.log"
    scenario.logout(scenario.login())
    until("The log is written", service_limit,
          lambda: scenario.machine.attempt(f"test -s {log}")[0] == 0)
    scenario.run(f"logrotate --force /etc/logrotate.d/session-service-frontend && test -s {log}.1")
    scenario.logout(scenario.login())
    until("The new log is written", service_limit,
          lambda: scenario.machine.attempt(f"test -s {log}")[0] == 0)


def lose_threads(scenario):
    """The service stops listening: the health timer starts it again"""
    scenario.run(r"""
        export REDISCLI_AUTH=$(cat /run/session-service-store/redis.requirepass)
        for channel in CreateNewSession DeleteSession; do
            redis-cli -s /run/session-service-store/redis.sock \
                PUBLISH "&&/redfish/v1/SessionService/Sessions/$channel" '&&EXIT'
        done""")
    must(scenario.run("systemctl is-active session-service.service").strip() == "active",
         "The service has ended instead.")
    scenario.logout(scenario.login())
    must(scenario.is_alive(scenario.session), "A session went with the restart.")
    lines = scenario.run("journalctl --boot --output=cat --identifier=session-service-health")
    must("has been started again" in lines, f"The journal does not say so:\n{lines}")


def hang_in_pam(scenario):
    """A PAM module hangs: others read, change settings and log out meanwhile"""
    olaf = scenario.login("olaf")
    scenario.run(r"""
        cp /etc/pam.d/q73 /root/q73
        printf '#!/bin/sh\nexec sleep infinity\n' >/usr/local/bin/hang
        chmod +x /usr/local/bin/hang
        { printf 'auth [success=1 default=ignore] pam_succeed_if.so quiet user != hans\n'
          printf 'auth required pam_exec.so quiet /usr/local/bin/hang\n'
          cat /root/q73; } >/etc/pam.d/q73""")
    with scenario.client() as client:
        status, _ = client.try_login("hans", scenario.passwords["hans"])
        must(status == 503, f"The login that hangs: {status}")
    must(scenario.is_alive(scenario.session), "A token is refused meanwhile.")
    scenario.expect(200, "PATCH", service, scenario.session, {"SessionTimeout": timeout})
    scenario.logout(olaf)
    # As the documents say: the process that hangs is ended.
    scenario.run("cp /root/q73 /etc/pam.d/q73 && rm /root/q73 /usr/local/bin/hang && "
                 "pkill --exact --full 'sleep infinity'")
    scenario.logout(scenario.login())


def fill_the_disk(scenario):
    """The disk is full: logins go on, and a restart mends what a change has left"""
    scenario.run("fallocate --length $(($(df --output=avail --block-size=1 / | tail -n 1) - 65536)) "
                 "/var/filler")
    # What is written out, or removed by others, may leave some blocks once more.
    append = "dd if=/dev/zero of=/var/filler oflag=append conv=notrunc bs=4k"
    until("The disk is full", service_limit,
          lambda: scenario.machine.attempt(
              f"exec 2>/dev/null; {append}; sync; ! {append} count=1")[0] == 0)
    scenario.logout(scenario.login())
    scenario.expect(200, "PATCH", service, scenario.session, {"SessionTimeout": timeout})
    left = scenario.property()
    scenario.run("rm /var/filler && sync")
    scenario.run("systemctl restart session-service.service")
    scenario.logout(scenario.login())
    must(left in (None, str(timeout)), f"The file holds {left}.")
    scenario.expect(200, "PATCH", service, scenario.session, {"SessionTimeout": timeout})
    must(scenario.property() == str(timeout), "Changes are no longer kept.")


def set_the_clock(scenario):
    """The clock goes forth and back by a year: sessions end by their idle time alone"""
    idle = 30
    scenario.expect(200, "PATCH", service, scenario.session, {"SessionTimeout": idle})
    for direction in ("1 year", "2 years ago"):
        olaf = scenario.login("olaf")
        scenario.run(f"date --set \"$(date --date '{direction}')\" >/dev/null")
        used = time.monotonic()
        must(scenario.is_alive(olaf), f"A session ended with the clock set to {direction}.")
        name = olaf.uri.rpartition("/")[2]
        until("An idle session ends", service_limit,
              lambda: scenario.machine.attempt(f"sessionctl list | grep --quiet {name}")[0] == 1)
        must(time.monotonic() - used >= idle - 1, "A session ended before its time.")
    scenario.run("date --set \"$(date --date '1 year')\" >/dev/null")
    # A session keeps the timeout that it began with.
    short = scenario.login()
    scenario.expect(200, "PATCH", service, short, {"SessionTimeout": timeout})
    scenario.logout(short)
    scenario.session = scenario.login()


def reboot(scenario):
    """A reboot: nobody is logged in any more, the settings have stayed"""
    old = scenario.session
    scenario.machine.reboot()
    scenario.session = scenario.login()
    taken = time.monotonic() - scenario.machine.started
    scenario.report.append(f"  from the boot to the first login: {taken:.0f} s")
    state = scenario.run("systemctl is-system-running --wait; systemctl --failed")
    must(state.startswith("running"), f"Not all units run:\n{state}")
    must(not scenario.is_alive(old), "A session outlived the machine.")
    shown = scenario.expect(200, "GET", service, scenario.session)["SessionTimeout"]
    must(shown == timeout, f"The timeout is {shown}, not {timeout}.")
    # As the network would: not every board has a clock that goes on.
    scenario.run(f"date --set @{time.time():.0f}")
    check(scenario)


def repack(packages, folder, version):
    """The same packages with another version, as a later build would have."""
    made = []
    for package in packages:
        tree = folder / package.stem
        subprocess.run(["dpkg-deb", "--raw-extract", package, tree], check=True)
        control = tree / "DEBIAN/control"
        text = control.read_text()
        old = re.search("^Version: (.*)$", text, re.MULTILINE).group(1)
        control.write_text(text.replace(f"Version: {old}", f"Version: {version}")
                           .replace(f"(= {old})", f"(= {version})"))
        made.append(folder / package.name)
        subprocess.run(["dpkg-deb", "--root-owner-group", "-Zgzip", "--build", tree, made[-1]],
                       check=True, stdout=subprocess.DEVNULL)
    return made


def upgrade(scenario):
    """A higher version, and back: the sessions stay, and nothing is set up anew"""
    with tempfile.TemporaryDirectory() as folder:
        newer = repack(scenario.packages, pathlib.Path(folder), "1:99")
        for packages, options in ((newer, ""), (scenario.packages, "--allow-downgrades")):
            before = scenario.run("pgrep --exact session-service")
            install_packages(scenario, packages, options)
            scenario.logout(scenario.login())
            must(scenario.is_alive(scenario.session), "A session went with the version.")
            must(scenario.run("pgrep --exact session-service") != before,
                 "The old version still runs.")
    check(scenario)


def purge(scenario):
    """A purge leaves nothing of ours"""
    names = " ".join(package.name.split("_")[0] for package in scenario.packages)
    # A group with members would stay: whom it lets in is the machine's owner's.
    scenario.run("".join(f"gpasswd --delete {user} {group}\n"
                         for user, group in account_groups.items() if group) +
                 f"apt-get purge --yes --quiet {names}")
    not_ours = re.compile(r"^/(var/(lib/(dpkg|apt|systemd|nginx|redis|logrotate)|cache|log|backups|"
                          r"tmp/systemd-private-)|"
                          r"etc/(passwd|group|shadow|gshadow|subuid|subgid)-?$|lost\+found)")
    left = sorted(path for path in list_files(scenario) - scenario.files
                  if not not_ours.match(path) or "session-service" in path)
    must(not left, "These are left:\n" + "\n".join(left))
    running = scenario.machine.attempt("pgrep --list-full 'session-service|redis|nginx'")[1]
    must("session-service" not in running, f"These still run:\n{running}")
    accounts = scenario.machine.attempt("getent passwd | grep session-service; "
                                        "getent group | grep -e session-service -e redfish")[1]
    scenario.report.append("  accounts left: " + (", ".join(
        line.split(":")[0] for line in accounts.splitlines()) or "none"))
