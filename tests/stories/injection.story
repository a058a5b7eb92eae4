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
