"""A keyboard that answers short, late, never or not at all: what is asked of it hangs nothing, and it types."""
import contextlib
import re

from guest import Failed, equal, strokes

FILTERED = "unruly keyboard (filtered)"
OWN = "Maker unruly keyboard"
A = ("0000040000000000", "0000000000000000")


@contextlib.contextmanager
def _unruly(guest):
    """The keyboard is plugged in and answers well. It goes at the end."""
    guest.sh("[ -e /dev/ffs/ep1 ] || /gadget unruly")
    guest.sh("echo well >/tmp/how; ls /sys/class/udc >/sys/kernel/config/usb_gadget/unruly/UDC")
    guest.until(f'guest-events list | grep -q "{OWN}"')
    try:
        yield
    finally:
        guest.sh("echo well >/tmp/how; echo >/sys/kernel/config/usb_gadget/unruly/UDC")
        guest.until('! guest-events list | grep -q unruly')


def _press_a(guest, name, limit):
    guest.watch()
    guest.sh(f"guest-load send /dev/ffs/ep1 2 {A[0]} {A[1]}")
    guest.until_keys(strokes("a"), name, limit)


def a_keyboard_that_answers_badly_types_on(guest):
    with _unruly(guest):
        guardian = guest.start("tvusb live --yes --device 7a3c:0102")
        guest.until(f'guest-events list | grep -q "{FILTERED}"')
        for how in ("stall", "short", "late", "never"):
            guest.sh(f'echo {how} >/tmp/how; guest-events led "{FILTERED}" 1 1; guest-events led "{FILTERED}" 1 0')
            guest.until(f"grep -q '^{how}: 21 09' /tmp/unruly")
            _press_a(guest, FILTERED, 5)
        guest.sh(f"kill -TERM {guardian}; echo well >/tmp/how")  # while a request is not answered
        guest.until_ended(guardian, 10)
        guest.until(f'guest-events list | grep -q "{OWN}"', 30)
        _press_a(guest, OWN, 5)


def a_keyboard_that_does_not_tell_what_it_is_hangs_nothing(guest):
    for how in ("stall", "short", "late", "never"):
        with _unruly(guest):
            guest.sh(f"echo {how} >/tmp/how")
            guardian = guest.start("tvusb live --yes --device 7a3c:0102")
            guest.until(f"grep -q '^{how}: 81 06 22' /tmp/unruly")
            guest.sh("echo well >/tmp/how")  # for the system, which asks when it is given back
            guest.until_ended(guardian)
            said = guest.sh("cat /tmp/log")
            equal("does not tell what its reports are" in said, True, f"{how}: {said}")
    with _unruly(guest):
        _press_a(guest, OWN, 5)


def the_way_through_the_driver_takes_less_than_a_report(guest):
    """From the report's end on the bus to the system's event: the kernel's own way, and the way through tvusb. On an
    emulated processor that others keep busy the times are an order of magnitude, no more; but who takes longer than the
    10 ms between two reports of a keyboard falls behind it."""
    def delay(name):
        bus = guest.sh("for i in /sys/bus/usb/devices/*; do [ \"$(cat $i/product 2>/dev/null)\" = 'unruly keyboard' ] && cat $i/busnum; done")
        said = guest.sh(f'guest-load delay {bus} /dev/ffs/ep1 "{name}" 400')
        if not (found := re.search(r"median (\d+) us", said)):
            raise Failed(said)
        print(f"{name}: {said}")
        return int(found[1])

    with _unruly(guest):
        own = delay(OWN)
        guardian = guest.start("tvusb live --yes --device 7a3c:0102 --latency")
        guest.until(f'guest-events list | grep -q "{FILTERED}"')
        whole = delay(FILTERED)
        guest.sh(f"kill -TERM {guardian}")
        guest.until_ended(guardian)
        said = guest.sh("cat /tmp/log")
        print(f"{whole / own:.1f} times as long through tvusb\n{said}")
        if not re.search(r"\b400 reports: median \d+ us, 99.9 % \d+ us.*\n  below .*#", said):
            raise Failed("--latency tells nothing of the 400 reports")
        equal(whole < 10000, True, f"{whole} us are less than 10000")
