"""The guest's own keyboard: offered over USB/IP to the guest itself; a clock that steps, and processes that stood still."""
import time

from guest import FILTERED, RAW, equal, strokes


def a_real_keyboard_goes_to_another_machine_over_usbip(guest):
    guardian = guest.start("tvusb live --yes --config /hotkey.toml --usbip 127.0.0.1:3240")
    guest.until(f'! guest-events list | grep -q "{RAW}"')
    guest.sh("[ -e /sys/devices/platform/vhci_hcd.0 ] || for module in usbip-core vhci-hcd; do insmod /modules/$module.ko; done; "
             "ip link set lo up")
    guest.until("guest-attach 127.0.0.1 3240 1-1 >/tmp/attach 2>&1")
    guest.until(f'guest-events list | grep -q "{RAW}"')  # with its own name, from there
    guest.watch()
    guest.type("ab")
    guest.until_keys(strokes("a", "b"), RAW)
    guest.sh(f'guest-events led "{RAW}" 0 1')
    guest.until_leds(2)
    guest.pull_out()
    guest.until(f'! guest-events list | grep -q "{RAW}"')
    guest.plug_in()
    guest.until("guest-attach 127.0.0.1 3240 1-1 >/tmp/attach 2>&1")
    guest.until(f'guest-events list | grep -q "{RAW}"')
    guest.watch()
    guest.type("x")
    guest.until_keys(strokes("x"), RAW)
    guest.sh(f"kill -TERM {guardian}")
    guest.until_ended(guardian)
    guest.until(f'guest-events list | grep -q "{RAW}"')
    guest.watch()
    guest.type("q")
    guest.until_keys(strokes("q"), RAW)


def a_clock_that_steps_back_holds_nothing_up(guest):
    guardian = guest.start("tvusb live --yes --control /run/tvusb.sock")
    guest.until(f'guest-events list | grep -q "{FILTERED}"')
    watch = guest.start("TVUSB_CONTROL=/run/tvusb.sock tvctl watch --seconds 3", "/tmp/told")
    time.sleep(1)
    guest.sh("date -s @$(($(date +%s) - 3600))")
    guest.watch()
    guest.type("a")
    guest.until_keys(strokes("a"), FILTERED)
    guest.until_ended(watch, 10)
    equal(guest.sh(f"kill -0 {guardian}; echo $?").splitlines()[-1], "0", "live is still there")
    guest.sh(f"kill -TERM {guardian}")
    guest.until_ended(guardian)
    guest.until(f'guest-events list | grep -q "{RAW}"')


def both_that_stood_still_for_a_while_go_on(guest):
    guardian = guest.start("tvusb live --yes")
    guest.until(f'guest-events list | grep -q "{FILTERED}"')
    both = f"{guardian} {guest.sh(f'cat /proc/{guardian}/task/{guardian}/children')}"
    guest.sh(f"kill -STOP {both}; sleep 2; kill -CONT {both}")
    guest.watch()
    time.sleep(1)
    guest.type("a")
    guest.until_keys(strokes("a"), FILTERED)
    guest.sh(f"kill -TERM {guardian}")
    guest.until_ended(guardian)
    guest.until(f'guest-events list | grep -q "{RAW}"')
