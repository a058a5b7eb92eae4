# What the application puts into the stream, and what the driver holds back and gives later.

story An inserted report comes at once
keyboard normal
packet 02 00 04 00 00 00 00 00
answer -> 02 00 04 00 00 00 00 00
packet 00 00 00 00 00 00 00 00
answer -> 00 00 00 00 00 00 00 00
quiet

story Modifier scan codes
keyboard normal
scans E0 1D
answer -> 10 00 00 00 00 00 00 00
scans E0 9D
answer -> 00 00 00 00 00 00 00 00
scans E0 E1                          # no key among them
report 04 00 00 00 00 00 00 00 -> 04 00 00 00 00 00 00 00
scans 2A
answer -> 06 00 00 00 00 00 00 00    # what the keyboard itself holds stays
quiet

story The LEDs are remembered
keyboard normal
led 01 -> 02
led 07 -> 07
led 04 -> 01

story Each modifier key has its bit
keyboard normal
scans 36
answer -> 20 00 00 00 00 00 00 00
scans 38
answer -> 04 00 00 00 00 00 00 00
scans E0 38
answer -> 40 00 00 00 00 00 00 00
scans E0 5B
answer -> 08 00 00 00 00 00 00 00
scans E0 5C
answer -> 80 00 00 00 00 00 00 00
scans B8
answer -> 00 00 00 00 00 00 00 00
scans 5B                             # without its prefix, and Shift with one: no such keys
answer -> 00 00 00 00 00 00 00 00
scans E0 36
answer -> 00 00 00 00 00 00 00 00

story The prefix and the break bit of another key wait for the next modifier
keyboard normal
scans E0 1E 1D
answer -> 00 00 00 00 00 00 00 00
answer -> 10 00 00 00 00 00 00 00
report 02 00 00 00 00 00 00 00 -> 02 00 00 00 00 00 00 00
scans 9E 1D 1D
answer -> 02 00 00 00 00 00 00 00
answer -> 02 00 00 00 00 00 00 00    # taken for a release
answer -> 03 00 00 00 00 00 00 00

story Only a standard keyboard takes scan codes
keyboard consumer
refused scans 1D
quiet

story The Windows keys without their prefix go on to the next scan code
keyboard normal
scans DB 1D 1D
answer -> 00 00 00 00 00 00 00 00
answer -> 00 00 00 00 00 00 00 00                            # taken for a release
answer -> 01 00 00 00 00 00 00 00
scans DC 1D
answer -> 00 00 00 00 00 00 00 00
answer -> 00 00 00 00 00 00 00 00
scans 9D 1D                              # a release, and a press of its own
answer -> 00 00 00 00 00 00 00 00
answer -> 01 00 00 00 00 00 00 00
