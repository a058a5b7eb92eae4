"""The guest: a virtual machine with Debian's own kernel and a USB keyboard. Boots it, runs commands in it, types at its
keyboard and sees the keyboard's LEDs. Its speed is that of software emulation; every wait is for something, with a limit.
"""
import base64
import ctypes
import json
import os
import pathlib
import re
import signal
import socket
import struct
import subprocess
import tempfile
import threading
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
BUILT = ROOT / "build/guest"
RAW = "QEMU QEMU USB Keyboard"                # the keyboard as the kernel's own driver has it
FILTERED = "QEMU USB Keyboard (filtered)"     # and as tvusb gives it back
KEYS = {"a": 30, "b": 48, "c": 46, "q": 16, "x": 45, "shift": 42, "ctrl": 29, "f1": 59, "enter": 28}  # evdev's codes
NAMES = {" ": "spc", ",": "comma", ".": "dot", "-": "minus", "/": "slash", "\n": "ret"}   # QEMU's, else the character


class Failed(Exception):
    """A scene that did not go as told, or a wait whose limit is over."""


def die_with_parent():
    ctypes.CDLL("libc.so.6").prctl(1, signal.SIGKILL)  # PR_SET_PDEATHSIG


def connect(path, limit=30):
    end = time.time() + limit
    while time.time() < end:
        peer = socket.socket(socket.AF_UNIX)
        try:
            peer.connect(str(path))
            return peer
        except OSError:
            peer.close()
            time.sleep(0.05)
    raise Failed(f"QEMU did not open {path.name} within {limit} s")


class Guest:
    def __init__(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="guest-"))  # a socket's path is short
        arguments = ["qemu-system-x86_64", "-accel", "tcg", "-m", "256", "-smp", "1", "-nodefaults", "-no-reboot", "-vga", "none",
                     "-kernel", BUILT / "vmlinuz", "-initrd", BUILT / "initrd.gz",
                     "-append", "console=ttyS0 quiet panic=-1 i8042.nokbd i8042.noaux no_timer_check",
                     "-serial", f"file:{self.folder}/console", "-device", "qemu-xhci,id=x", "-device", "usb-kbd,bus=x.0,id=kbd0",
                     "-device", "virtio-serial-pci", "-chardev", f"socket,id=shell,path={self.folder}/shell,server=on,wait=off",
                     "-device", "virtserialport,chardev=shell,name=shell",
                     "-netdev", "user,id=net", "-device", "virtio-net-pci,netdev=net,romfile=",
                     "-qmp", f"unix:{self.folder}/qmp,server=on,wait=off", "-vnc", f"unix:{self.folder}/vnc"]
        self.log = open(self.folder / "qemu", "w+")
        self.qemu = subprocess.Popen(arguments, stdin=subprocess.DEVNULL, stdout=self.log, stderr=self.log, preexec_fn=die_with_parent)
        self.commands, self.pending, self.leds = 0, b"", None
        try:
            self.shell = connect(self.folder / "shell")
            self.shell.settimeout(60)
            self._read_to(b"GUEST-READY")
            self.monitor = connect(self.folder / "qmp").makefile("rw")
            self.monitor.readline()
            self.qmp("qmp_capabilities")
            threading.Thread(target=self._watch_leds, daemon=True).start()
            self.until(f'guest-events list | grep -q "{RAW}"')
            self.watch()
        except Exception as error:
            told = self.console()
            self.close()
            raise Failed(f"the guest does not boot: {error}\n{told}") from None

    def close(self):
        self.qemu.kill()
        self.qemu.wait()
        self.log.close()
        for path in self.folder.iterdir():
            path.unlink()
        self.folder.rmdir()

    def console(self):
        return "".join((self.folder / name).read_text(errors="replace")[-2000:] for name in ("qemu", "console")
                       if (self.folder / name).exists())

    # Commands.

    def _read_to(self, mark):
        while mark not in self.pending:
            try:
                data = self.shell.recv(65536)
            except TimeoutError:
                raise Failed(f"the guest's shell does not answer; it said {self.pending[-400:]}") from None
            if not data:
                raise Failed("the guest has ended")
            self.pending += data
        before, self.pending = self.pending.split(mark, 1)
        return before.decode(errors="replace")

    def sh(self, command):
        """Runs a command in the guest; what it printed. Its exit status is self.status."""
        self.commands += 1
        self.shell.sendall(f"{command}\necho END-{self.commands}'-'$status-\n".encode())
        text = self._read_to(f"END-{self.commands}-".encode())
        self.status = int(self._read_to(b"-"))
        return text.replace("\r", "").strip()

    def write(self, path, text):
        self.sh(f"echo {base64.b64encode(text.encode()).decode()} | base64 -d >{path}")

    def until(self, command, limit=20):
        """Runs the command until it succeeds; what it printed then."""
        end = time.time() + limit
        while True:
            text = self.sh(command)
            if self.status == 0:
                return text
            if time.time() > end:
                raise Failed(f"not within {limit} s: {command}\n{text}")
            time.sleep(0.1)

    def start(self, command, log="/tmp/log"):
        """Starts a program beside the shell; its process's number."""
        return int(self.sh(f"{command} >{log} 2>&1 & echo $!"))

    def until_ended(self, process, limit=20):
        self.until(f"! kill -0 {process} 2>/dev/null", limit)

    # The keyboard.

    def qmp(self, command, **arguments):
        self.monitor.write(json.dumps({"execute": command, "arguments": arguments}) + "\n")
        self.monitor.flush()
        while True:
            reply = json.loads(self.monitor.readline())
            if "error" in reply:
                raise Failed(f"QEMU refuses {command}: {reply['error']['desc']}")
            if "return" in reply:
                return reply["return"]

    def key(self, name, down):
        self.qmp("input-send-event", events=[{"type": "key", "data": {"down": down, "key": {"type": "qcode", "data": name}}}])

    def chord(self, *names, pause=0.03):
        for name in names:
            self.key(name, True)
            time.sleep(pause)
        for name in reversed(names):
            self.key(name, False)
            time.sleep(pause)

    def type(self, text):
        for character in text:
            self.chord(*(["shift", character.lower()] if character.isupper() else [NAMES.get(character, character)]))

    def pull_out(self):
        self.qmp("device_del", id="kbd0")

    def plug_in(self):
        self.qmp("device_add", driver="usb-kbd", id="kbd0", bus="x.0")

    # The machine.

    def sleep(self):
        """Suspends it to its memory, and wakes it up."""
        self.start("sh -c 'echo mem >/sys/power/state'", "/tmp/slept")
        end = time.time() + 20
        while self.qmp("query-status")["status"] != "suspended":
            if time.time() > end:
                raise Failed(f"the guest does not go to sleep: {self.sh('cat /tmp/slept')}")
            time.sleep(0.1)
        self.qmp("system_wakeup")

    def _watch_leds(self):
        """A client of the screen's protocol (RFC 6143) that asks for nothing but the keyboard's LEDs: 1 scroll, 2 num, 4 caps."""
        peer = connect(self.folder / "vnc")
        stream = peer.makefile("rb")
        stream.read(12)
        peer.sendall(b"RFB 003.008\n")
        stream.read(stream.read(1)[0])
        peer.sendall(b"\1")
        stream.read(4)
        peer.sendall(b"\1")
        head = stream.read(24)
        stream.read(struct.unpack(">I", head[20:])[0])
        peer.sendall(struct.pack(">BBHii", 2, 0, 2, 0, -261))
        peer.sendall(struct.pack(">BBHHHH", 3, 1, 0, 0, 1, 1))
        while kind := stream.read(1):
            if kind[0] != 0:
                continue
            stream.read(1)
            for _ in range(struct.unpack(">H", stream.read(2))[0]):
                _, _, width, height, encoding = struct.unpack(">HHHHi", stream.read(12))
                if encoding == -261:
                    self.leds = stream.read(1)[0]
                elif encoding == 0:
                    stream.read(width * height * head[4] // 8)

    def until_leds(self, value, limit=10):
        end = time.time() + limit
        while self.leds != value:
            if time.time() > end:
                raise Failed(f"the keyboard's LEDs are {self.leds}, not {value}")
            time.sleep(0.01)

    # What the system sees.

    def watch(self):
        """From now on events() tells what comes."""
        self.sh("[ ! -e /tmp/watch ] || kill $(cat /tmp/watch); rm -f /tmp/events; guest-events watch >/tmp/events & echo $! >/tmp/watch")
        self.until("grep -q watching /tmp/events")

    def events(self, name=None):
        """Key and LED events of the device of that name, of all without one: (seconds, name, kind, code, value)."""
        found = re.findall(r'^([\d.]+) "(.*)" (key|led) (\d+) (\d+)$', self.sh("cat /tmp/events"), re.M)
        return [(float(at), device, kind, int(code), int(value)) for at, device, kind, code, value in found
                if name is None or name in device]

    def keys(self, name=None):
        """Keys that went down (1) and came up (0), without the kernel's own repeats."""
        return [(code, value) for _, _, kind, code, value in self.events(name) if kind == "key" and value != 2]

    def until_keys(self, expected, name, limit=10, leave_out=()):
        end = time.time() + limit
        while (seen := [key for key in self.keys(name) if key[0] not in leave_out]) != expected:
            if time.time() > end:
                at = next((i for i, pair in enumerate(zip(seen, expected)) if pair[0] != pair[1]), min(len(seen), len(expected)))
                raise Failed(f"{name} gave {len(seen)} keys, not {len(expected)}; from {at} on {seen[at:at + 20]}, not {expected[at:at + 20]}")
            time.sleep(0.1)

    def told(self):
        """What a failed scene leaves to look at."""
        try:
            return self.sh("echo '-- the program:'; cat /tmp/log; echo '-- events:'; tail -n 20 /tmp/events; guest-events list; "
                           "echo '-- the kernel:'; dmesg | tail -n 15")
        except (Failed, OSError):
            return self.console()


def strokes(*names):
    """Down and up of each key, as until_keys has them."""
    return [(KEYS[name], value) for name in names for value in (1, 0)]


def equal(seen, expected, what):
    if seen != expected:
        raise Failed(f"{what}: {seen!r}, not {expected!r}")
