"""A keyboard that tvusb offers over USB/IP outside, attached by the guest's kernel."""
import contextlib
import re
import signal
import subprocess
import time

from guest import KEYS, ROOT, Failed, die_with_parent, equal

OFFERED = "Boot keyboard"
HOST = "10.0.2.2"  # who runs the guest, as the guest's network has it


@contextlib.contextmanager
def _offer(*options, port=0):
    """tvusb outside, with someone who types A and Ctrl+F1; its port, its output's lines, and the process."""
    command = [ROOT / "build/release/tvusb", "live", "--emulate", "normal", "--person", "a ctrl+0x3A", "--watch",
               "--config", ROOT / "tests/guest/hotkey.toml", "--usbip", f"127.0.0.1:{port}", *options]
    live = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, preexec_fn=die_with_parent)
    try:
        said = ""
        while not (found := re.search(r"port (\d+)", said)):
            line = live.stderr.readline()
            if not line:
                raise Failed(f"tvusb does not offer the keyboard: {said}")
            said += line
        yield int(found[1]), live
    finally:
        if live.poll() is None:
            live.send_signal(signal.SIGTERM)
        live.communicate(timeout=20)


def _attach(guest, port):
    guest.sh("[ -e /sys/devices/platform/vhci_hcd.0 ] || { for module in failover net_failover virtio_net usbip-core vhci-hcd; do "
             "insmod /modules/$module.ko; done; ip link set lo up; ip link set eth0 up; ip addr add 10.0.2.15/24 dev eth0; }")
    guest.until(f"guest-attach {HOST} {port} 1-1 >/tmp/log 2>&1")
    guest.until(f'guest-events list | grep -q "{OFFERED}"')
    guest.watch()


def _until_gone(guest):
    guest.until(f'! guest-events list | grep -q "{OFFERED}"')


def _typed(guest, limit=10):
    """What the attached keyboard gave, once A has been typed twice."""
    end = time.time() + limit
    while (keys := guest.keys(OFFERED)).count((KEYS["a"], 1)) < 2:
        if time.time() > end:
            raise Failed(f"A was not typed twice: {keys}")
        time.sleep(0.1)
    return keys


def an_attached_keyboard_types_what_the_driver_lets_through(guest):
    with _offer() as (port, _):
        _attach(guest, port)
        keys = _typed(guest)
        equal([key for key in keys if key[0] not in (KEYS["a"], KEYS["ctrl"])], [], "keys besides A and Ctrl")
    _until_gone(guest)


def detached_by_its_machine_it_can_be_attached_again(guest):
    with _offer() as (port, _):
        _attach(guest, port)
        _typed(guest)
        equal(guest.sh(f"guest-attach {HOST} {port} 1-1 2>&1; echo $?").splitlines()[-1], "3", "a second attaching")
        guest.sh("echo 0 >/sys/devices/platform/vhci_hcd.0/detach")
        _until_gone(guest)
        _attach(guest, port)
        _typed(guest)
    _until_gone(guest)


def a_killed_server_pulls_it_out_and_the_next_one_brings_it_back(guest):
    with _offer() as (port, live):
        _attach(guest, port)
        _typed(guest)
        live.kill()
        _until_gone(guest)
    with _offer(port=port):
        _attach(guest, port)
        _typed(guest)
    _until_gone(guest)


def leds_of_its_machine_reach_it_through_the_driver(guest):
    with _offer() as (port, live):
        _attach(guest, port)
        _typed(guest)
        guest.sh(f'guest-events led "{OFFERED}" 0 1')
        time.sleep(0.5)
        live.send_signal(signal.SIGTERM)
        lines = live.communicate(timeout=20)[0].splitlines()
        leds = [line for line in lines if "LEDs" in line]
        equal(leds[-1].split("LEDs: ")[1], "Num", f"the last of {leds}")
    _until_gone(guest)
