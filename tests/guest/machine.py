"""What happens to the machine: its rules for devices, its clock, its sleep."""
import pathlib
import shutil
import subprocess
import tempfile
import time

from guest import FILTERED, KEYS, RAW, ROOT, Failed, equal, strokes
from live import _start, _stop, _worker

IDS = "0627:0001"  # the keyboard's
SYSTEM = ROOT / "tools/live/system"


def _unit(key):
    """What the unit says, for this keyboard."""
    lines = (SYSTEM / "tvusb-live@.service").read_text().splitlines()
    return next(line for line in lines if line.startswith(key + "=")).split("=", 1)[1].replace("%i", IDS)


def _types(guest):
    guest.watch()
    guest.type("b")
    guest.until_keys(strokes("b"), FILTERED)
    equal(guest.events(RAW), [], "events of the raw keyboard")


def the_unit_and_its_user_are_as_systemd_wants_them(_guest):
    """By systemd's own programs on the building machine."""
    if not shutil.which("systemd-analyze") or not shutil.which("systemd-sysusers"):
        print("left out: systemd is not installed here")
        return
    with tempfile.TemporaryDirectory() as folder:
        unit = pathlib.Path(folder) / "tvusb-live@.service"
        unit.write_text((SYSTEM / unit.name).read_text().replace("/usr/bin/tvusb", str(ROOT / "build/release/tvusb")))
        said = subprocess.run(["systemd-analyze", "verify", "--man=no", unit], capture_output=True, text=True)
        equal((said.returncode, said.stdout + said.stderr), (0, ""), "what is wrong with the unit")
        (pathlib.Path(folder) / "etc").mkdir()
        subprocess.run(["systemd-sysusers", f"--root={folder}", SYSTEM / "tvusb.sysusers"], check=True)
        made = (pathlib.Path(folder) / "etc/passwd").read_text()
        equal([line.split(":")[0] for line in made.splitlines()], ["tvusb"], "users made")


def the_shipped_rules_give_keyboard_and_uhid_to_their_user(guest):
    guest.sh("udevd --daemon; udevadm trigger --action=add; udevadm settle --timeout=30")
    try:
        node = guest.sh("ls /dev/bus/usb/001/* | tail -n 1")
        equal([line.split()[0::2][:2] for line in guest.sh(f"ls -l {node} /dev/uhid").splitlines()],
              [["crw-rw-r--", "tvusb"], ["crw-------", "tvusb"]], "mode and owner of the keyboard and of uhid")
        others = guest.sh("find /dev -user tvusb").split()
        equal(sorted(others), sorted([node, "/dev/uhid"]), "what is the user's")
        equal("Permission denied" in guest.sh("su nobody -c 'tvusb live --yes' 2>&1"), True, "another user is refused")
        guest.sh(f"mkdir -p /run/tvusb-{IDS}; chown tvusb /run/tvusb-{IDS}")
        guardian = guest.start(f"""su tvusb -c 'TVUSB_LIVE="--config /hotkey.toml"; exec {_unit("ExecStart")}'""")
        guest.until(f'guest-events list | grep -q "{FILTERED}"')
        equal(guest.sh(f"grep -c '^Uid:.1000.1000.1000.1000' /proc/{guardian}/status /proc/{_worker(guest, guardian)}/status").splitlines(),
              [f"/proc/{guardian}/status:1", f"/proc/{_worker(guest, guardian)}/status:1"], "whose processes they are")
        _types(guest)
        guest.pull_out()
        guest.until(f'! guest-events list | grep -q "{FILTERED}"')
        guest.plug_in()
        guest.until(f'guest-events list | grep -q "{FILTERED}"')
        _types(guest)
        guest.sh(f"guest-events kill 9 {guardian} {_worker(guest, guardian)}; su tvusb -c '{_unit('ExecStopPost')}'")
        guest.until(f'guest-events list | grep -q "{RAW}"')
    finally:
        guest.sh("killall udevd; chown root /dev/uhid")


def after_the_machine_slept_the_keyboard_types_filtered(guest):
    """Its USB controller has lost everything meanwhile, so the kernel takes the keyboard back when it wakes up, and what is
    typed in this moment is not filtered."""
    guardian = _start(guest)
    for times in (1, 2):
        guest.sleep()
        guest.until(f"[ $(dmesg | grep -c 'suspend exit') = {times} ]")
        guest.watch()
        end = time.time() + 20
        while [key[0] for key in guest.keys(FILTERED)[-2:]] != [KEYS["b"]] * 2:
            if time.time() > end:
                raise Failed("nothing is filtered any more")
            guest.type("b")
            time.sleep(0.2)
        _types(guest)
    _stop(guest, guardian)
