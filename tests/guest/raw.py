"""The guest without a filter: what the other scenes take for granted, and a capture that this kernel makes."""
from guest import RAW, equal, strokes


def what_is_typed_comes_from_the_kernels_own_keyboard(guest):
    guest.watch()
    guest.type("ab")
    guest.until_keys(strokes("a", "b"), RAW)


def leds_of_the_system_reach_the_keyboard(guest):
    guest.sh(f'guest-events led "{RAW}" 1 1')
    guest.until_leds(4)
    guest.sh(f'guest-events led "{RAW}" 1 0')
    guest.until_leds(0)


def a_capture_made_here_replays_to_what_was_typed(guest):
    capture = guest.start("guest-load capture 1 /tmp/typed.pcap", "/tmp/log")
    guest.pull_out()
    guest.until(f'! guest-events list | grep -q "{RAW}"')
    guest.plug_in()  # the driver learns from the enumeration what kind it is
    guest.until(f'guest-events list | grep -q "{RAW}"')
    guest.watch()
    guest.type("a")
    guest.chord("ctrl", "f1")
    guest.until_keys(strokes("a") + [(29, 1), (59, 1), (59, 0), (29, 0)], RAW)
    guest.sh(f"kill {capture}")
    guest.until_ended(capture)
    lines = guest.sh("tvusb replay /tmp/typed.pcap --config /hotkey.toml --changed >/tmp/log; cat /tmp/log").splitlines()
    equal([line.split()[-1] for line in lines if "hotkey 7" in line], ["down", "up"], f"the hotkey in {lines}")
    equal(guest.sh("tvusb replay /tmp/typed.pcap --config /hotkey.toml --json | grep -c '\"in\":\"0000040000000000\"'"), "1",
          "reports with A")
