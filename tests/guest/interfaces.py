"""A keyboard of two interfaces that the guest's kernel makes itself: every report is exact, and as fast as it is taken."""
import contextlib

from guest import KEYS, Failed, equal

MADE = "Maker gadget keyboard"               # as the kernel's own driver has it
FILTERED = "gadget keyboard (filtered)"
LETTERS = (30, 48, 46, 32, 18, 33, 34, 35, 23, 36, 37, 38, 50, 49, 24, 25, 16, 19, 31, 20, 22, 47, 17, 45, 21, 44)  # A to Z
NONE, CTRL, CTRL_F1, A = ("0000000000000000", "0100000000000000", "01003a0000000000", "0000040000000000")
F1 = KEYS["f1"]
CONTROL = "/run/tvusb.sock"
# A burst of every letter, pressed and released.
BURST = " ".join(f"0000{usage:02x}0000000000 {NONE}" for usage in range(4, 30))


def _burst_keys(count):
    return [(LETTERS[i // 2 % 26], 1 - i % 2) for i in range(count)]


@contextlib.contextmanager
def _made(guest):
    """The keyboard is plugged in."""
    guest.sh("[ -e /sys/kernel/config/usb_gadget/gadget ] || /gadget; ls /sys/class/udc >/sys/kernel/config/usb_gadget/gadget/UDC")
    guest.until(f'test -e /dev/hidg1 && [ $(guest-events list | grep -c "{MADE}") = 2 ]')
    try:
        yield
    finally:
        guest.sh("echo >/sys/kernel/config/usb_gadget/gadget/UDC")
        guest.until('! guest-events list | grep -q gadget')


@contextlib.contextmanager
def _filtered(guest, options=""):
    """tvusb live has both its interfaces; gives the guardian's process."""
    guardian = guest.start(f"tvusb live --yes --device 7a3c:0101 {options}")
    guest.until(f'[ $(guest-events list | grep -c "{FILTERED}") = 2 ]')
    guest.watch()
    yield guardian
    guest.sh(f"kill -TERM {guardian}")
    guest.until_ended(guardian)
    guest.until(f'[ $(guest-events list | grep -c "{MADE}") = 2 ]')


def _send(guest, interface, *reports):
    for report in reports:
        guest.sh(f"guest-load send /dev/hidg{interface} 1 {report}")


def stories_of_the_ordinary_keyboard_come_out_as_told(guest):
    with _made(guest), _filtered(guest, f"--control {CONTROL}"):
        said = guest.sh(f"TVUSB_CONTROL={CONTROL} guest-stories /stories/*.story")
        if guest.status != 0 or "played " not in said:
            raise Failed(said)
        lines = said.splitlines()
        print("\n".join(line for line in lines if not line.startswith("played ")))
        print(f"{sum(line.startswith('played ') for line in lines)} stories of {len(lines)} were played")


def media_keys_and_leds_go_through_both_interfaces(guest):
    with _made(guest), _filtered(guest):
        leds = guest.start("cat /dev/hidg0", "/tmp/leds")
        _send(guest, 1, "01ea00", "010000", "01e900", "010000", "01b500", "010000")
        _send(guest, 0, A, NONE)
        guest.until_keys([(key, value) for key in (114, 115, 163, 30) for value in (1, 0)], FILTERED)
        equal(guest.events(MADE), [], "events of the raw keyboard")
        for lit, reports in ((1, "0[23]"), (0, "0[01]")):  # the console may have lit Num Lock
            guest.sh(f'guest-events led "{FILTERED}" 1 {lit}')
            guest.until(f"tail -c 1 /tmp/leds | hexdump -e '1/1 \"%02x\"' | grep -q '{reports}'")
        guest.sh(f"kill {leds}")


def of_two_thousand_reports_at_once_none_is_lost_or_doubled(guest):
    with _made(guest), _filtered(guest):
        print(guest.sh(f"guest-load send /dev/hidg0 2000 {BURST}"))
        guest.until_keys(_burst_keys(2000), FILTERED, 30)


def a_thousand_connections_a_second_take_no_key_away(guest):
    with _made(guest), _filtered(guest, f"--control {CONTROL}") as guardian:
        worker = guest.sh(f"cat /proc/{guardian}/task/{guardian}/children").strip()
        threads = f"grep Threads /proc/{worker}/status"
        before = guest.sh(threads)
        connecting = guest.start(f"guest-load connect {CONTROL} 3", "/tmp/connected")
        guest.sh(f"guest-load send /dev/hidg0 1000 {BURST}")
        guest.until_ended(connecting)
        said = guest.sh("cat /tmp/connected")
        print(said)
        equal(said.endswith(" 0 failed"), True, said)
        guest.until_keys(_burst_keys(1000), FILTERED, 30)
        guest.until(f'[ "$({threads})" = "{before}" ]')
        equal(guest.sh(f"TVUSB_CONTROL={CONTROL} tvctl list").count("\n"), 1, "keyboards that tvctl lists")


def a_changed_configuration_is_taken_over_without_a_gap(guest):
    """Ctrl+F1 goes from one id to another and back, first to go and last to come, with many others; it is never typed."""
    others = [(modifiers, scan) for modifiers in (0x400, 0x800, 0x1000, 0x1800) for scan in range(0x10, 0x32) if scan not in (0x1C, 0x1D, 0x2A, 0x2B)]

    def definition(number, modifiers, scan):
        return f"[[definition]]\nid = {number}\nmodifiers = {modifiers}\nscans = [{scan}]\nswallow = 1\n"

    for name, own, first in (("a", 7, True), ("b", 8, False)):
        text = [definition(own * 1000 + i, *other) for i, other in enumerate(others)]
        text.insert(0 if first else len(text), definition(own, 0x400, 0x3B))
        guest.write(f"/tmp/{name}.toml", "".join(text))
    guest.sh("cp /tmp/a.toml /tmp/live.toml; echo 'id = nonsense' >/tmp/bad.toml")
    reload = f"TVUSB_CONTROL={CONTROL} tvctl reload"
    with _made(guest), _filtered(guest, f"--control {CONTROL} --config /tmp/live.toml"):
        sending = guest.start(f"guest-load send /dev/hidg0 3000 {CTRL} {CTRL_F1} {CTRL} {NONE} {A} {NONE}", "/tmp/sent")
        count = guest.sh(f"n=0; while kill -0 {sending} 2>/dev/null; do for name in b a; do cp /tmp/$name.toml /tmp/live.toml; {reload} >/tmp/told || "
                         "cat /tmp/told; n=$((n+1)); done; done; echo $n")
        print(f"{guest.sh('cat /tmp/sent')}; taken over {count} times; the last: {guest.sh('cat /tmp/told')}")
        guest.until_keys([(30, 1), (30, 0)] * 500, FILTERED, 30, leave_out=(KEYS["ctrl"],))
        said = guest.sh(f"cp /tmp/bad.toml /tmp/live.toml; {reload}; echo $?")
        equal(said.splitlines()[-1], "1", said)
        equal("/tmp/live.toml:1" in said and "nothing was changed" in said, True, said)
        _send(guest, 0, CTRL, CTRL_F1, NONE, A, NONE)
        guest.until_keys([(30, 1), (30, 0)] * 501, FILTERED, leave_out=(KEYS["ctrl"],))
