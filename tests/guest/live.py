"""tvusb live in the guest, at the keyboard that the guest's kernel would have."""
from guest import equal


def an_application_uses_the_driver_of_another_process(guest):
    live = guest.start("tvusb live --emulate normal --person ctrl+0x3A --control /run/tvusb.sock")
    guest.until("test -S /run/tvusb.sock")
    told = guest.sh("TVUSB_CONTROL=/run/tvusb.sock tvctl hotkey add 7 ctrl+F1 --watch --events 2 --seconds 20")
    equal([line.split()[1:] for line in told.splitlines()[1:]], [["7", "down", "Ctrl+F1"], ["7", "up", "Ctrl+F1"]], told)
    guest.sh(f"kill {live}")
    guest.until_ended(live)
    guest.until("test ! -e /run/tvusb.sock")
