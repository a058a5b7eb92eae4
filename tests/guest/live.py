"""tvusb live in the guest: at an emulated keyboard, and at the one that the guest's kernel would have."""
import re
import threading
import time

from guest import FILTERED, KEYS, RAW, Failed, equal, strokes


def _start(guest, options=""):
    """tvusb live at the guest's keyboard; the guardian's process."""
    guardian = guest.start(f"tvusb live --yes {options}")
    guest.until(f'guest-events list | grep -q "{FILTERED}"')
    guest.watch()
    return guardian


def _worker(guest, guardian):
    return guest.sh(f"cat /proc/{guardian}/task/{guardian}/children").strip()


def _stop(guest, guardian):
    guest.sh(f"kill -TERM {guardian}")
    _given_back(guest, guardian)


def _given_back(guest, guardian):
    guest.until_ended(guardian)
    guest.until(f'guest-events list | grep -q "{RAW}"')


def _raw_keys_after(guest, deed, limit=2.5):
    """Types all the time while the command in the guest, which tells when, does its deed; seconds to the first raw key."""
    ended = threading.Event()

    def type_on():
        while not ended.is_set():
            guest.chord("x", pause=0.008)

    guest.watch()
    typist = threading.Thread(target=type_on)
    typist.start()
    try:
        time.sleep(0.3)
        done = float(re.match(r"([\d.]+) killed", guest.sh(deed))[1])
        end = time.time() + limit + 5
        raw = []
        while not raw and time.time() < end:
            time.sleep(0.2)
            raw = [at for at, _, kind, _, _ in guest.events(RAW) if kind == "key" and at > done]
    finally:
        ended.set()
        typist.join()
    if not raw or raw[0] - done > limit:
        raise Failed(f"no raw key within {limit} s" if not raw else f"the first raw key came after {raw[0] - done:.1f} s")
    print(f"the keyboard typed again after {(raw[0] - done) * 1000:.0f} ms")


def an_application_uses_the_driver_of_another_process(guest):
    live = guest.start("tvusb live --emulate normal --person ctrl+0x3A --control /run/tvusb.sock")
    guest.until("test -S /run/tvusb.sock")
    told = guest.sh("TVUSB_CONTROL=/run/tvusb.sock tvctl hotkey add 7 ctrl+F1 --watch --events 2 --seconds 20")
    equal([line.split()[1:] for line in told.splitlines()[1:]], [["7", "down", "Ctrl+F1"], ["7", "up", "Ctrl+F1"]], told)
    guest.sh(f"kill {live}")
    guest.until_ended(live)
    guest.until("test ! -e /run/tvusb.sock")


def the_only_keyboard_of_the_terminal_is_not_taken_unasked(guest):
    said = guest.sh("tvusb live; echo $?")
    equal(said.splitlines()[-1], "2", said)
    equal("--yes" in said, True, said)


def typed_keys_come_from_the_filtered_keyboard_and_no_other(guest):
    guardian = _start(guest)
    guest.type("abC")
    guest.until_keys(strokes("a", "b") + [(KEYS["shift"], 1), (KEYS["c"], 1), (KEYS["c"], 0), (KEYS["shift"], 0)], FILTERED)
    equal(guest.events(RAW), [], "events of the raw keyboard")
    _stop(guest, guardian)
    guest.watch()
    guest.type("q")
    guest.until_keys(strokes("q"), RAW)


def a_swallowed_hotkey_is_told_and_not_typed(guest):
    guardian = _start(guest, "--config /hotkey.toml --control /run/tvusb.sock")
    told = guest.start("TVUSB_CONTROL=/run/tvusb.sock tvctl watch --events 2 --seconds 20", "/tmp/told")
    guest.until("[ -s /run/tvusb.sock ] || test -S /run/tvusb.sock")
    time.sleep(1)  # until it watches
    guest.chord("ctrl", "f1")
    guest.chord("shift", "f1")
    ctrl, shift, f1 = KEYS["ctrl"], KEYS["shift"], KEYS["f1"]
    guest.until_ended(told)
    equal([line.split()[1:3] for line in guest.sh("cat /tmp/told").splitlines()], [["7", "down"], ["7", "up"]], "what was told")
    end = time.time() + 5
    while guest.keys(FILTERED)[-4:] != [(shift, 1), (f1, 1), (f1, 0), (shift, 0)] and time.time() < end:
        time.sleep(0.1)
    seen = guest.keys(FILTERED)
    equal(seen[-4:], [(shift, 1), (f1, 1), (f1, 0), (shift, 0)], f"Shift+F1 in {seen}")
    equal(seen.count((f1, 1)), 1, f"F1 in {seen}")
    equal(set(seen[:-4]) <= {(ctrl, 1), (ctrl, 0)}, True, f"before it in {seen}")
    _stop(guest, guardian)


def leds_reach_the_keyboard_through_the_driver(guest):
    guardian = _start(guest)
    for code, bit in ((0, 2), (1, 4), (2, 1)):  # num, caps, scroll
        guest.sh(f'guest-events led "{FILTERED}" {code} 1')
        guest.until_leds(bit)
        guest.sh(f'guest-events led "{FILTERED}" {code} 0')
        guest.until_leds(0)
    guest.chord("caps_lock")
    guest.until_leds(4)  # the kernel's own console
    guest.chord("caps_lock")
    guest.until_leds(0)
    _stop(guest, guardian)


def pulled_out_with_a_key_held_it_is_released_and_filtered_again_when_plugged_in(guest):
    guardian = _start(guest)
    guest.key("a", True)
    guest.until_keys([(KEYS["a"], 1)], FILTERED)
    guest.pull_out()
    guest.until(f'! guest-events list | grep -q "{FILTERED}"')
    guest.until_keys(strokes("a"), FILTERED)
    guest.key("a", False)
    guest.plug_in()
    guest.until(f'guest-events list | grep -q "{FILTERED}"')
    guest.watch()
    guest.type("x")
    guest.until_keys(strokes("x"), FILTERED)
    _stop(guest, guardian)


def a_killed_worker_gives_the_keyboard_back_within_a_second(guest):
    guardian = _start(guest)
    _raw_keys_after(guest, f"guest-events kill 9 {_worker(guest, guardian)}", 1.0)
    _given_back(guest, guardian)


def a_killed_guardian_gives_the_keyboard_back_within_a_second(guest):
    guardian = _start(guest)
    _raw_keys_after(guest, f"guest-events kill 9 {guardian}", 1.0)
    _given_back(guest, guardian)


def a_worker_that_hangs_is_ended(guest):
    guardian = _start(guest)
    _raw_keys_after(guest, f"guest-events kill 19 {_worker(guest, guardian)}", 2.5)
    _given_back(guest, guardian)


def the_panic_chord_ends_it(guest):
    guardian = _start(guest)
    guest.chord("backspace", "esc", "ret", pause=0.05)
    _given_back(guest, guardian)
    guest.watch()
    guest.type("q")
    guest.until_keys(strokes("q"), RAW)


def both_killed_at_once_the_keyboard_comes_back_by_give_back(guest):
    guardian = _start(guest)
    guest.sh(f"guest-events kill 9 {guardian} {_worker(guest, guardian)}")
    time.sleep(1)
    equal(RAW in guest.sh("guest-events list"), False, "the keyboard came back by itself")
    guest.sh("tvusb live --give-back")
    guest.until(f'guest-events list | grep -q "{RAW}"')


def as_another_user_it_has_no_rights_besides(guest):
    guardian = _start(guest, "--user tvusb")
    rights = guest.sh(f"grep -E '^(Uid|CapEff|NoNewPrivs)' /proc/{_worker(guest, guardian)}/status | tr '\\n\\t' '  '")
    equal("1000 1000 1000 1000" in rights.replace("  ", " ") and "CapEff: 0000000000000000" in rights and "NoNewPrivs: 1" in rights,
          True, rights)
    guest.type("b")
    guest.until_keys(strokes("b"), FILTERED)
    _stop(guest, guardian)
