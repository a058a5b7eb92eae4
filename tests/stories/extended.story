# Media and power keys: a bit each on the keyboards with a Jaalaa or Chic controller, key codes on the second
# interface of a boot keyboard. Scan codes: E0 19 = next track, E0 24 = stop, E0 30 = volume up, E0 32 = home page,
# E0 5F = sleep, E0 63 = wake up, E0 6C = mail.

story A media key is the application's, once down and once up
keyboard jaalaa
hotkey 3 - E0 19
report 02 01 00 00 00 -> 02 00 00 00 00 | down 3
report 02 01 00 00 00 -> 02 00 00 00 00         # held
report 02 00 00 00 00 -> 02 00 00 00 00 | up 3
quiet

story The media keys beside it stay
keyboard jaalaa
hotkey 3 - E0 19
hotkey 4 - E0 6C
report 02 21 08 00 80 -> 02 20 08 00 80 | down 3
report 02 21 09 00 80 -> 02 20 08 00 80 | down 4
report 02 20 09 00 80 -> 02 20 08 00 80 | up 3
report 02 00 00 00 00 -> 02 00 00 00 00 | up 4

story Two hotkeys of one media key: Shift on the other keyboard decides
keyboard jaalaa
hotkey 1 shift E0 19
hotkey 2 - E0 19
keyboard normal
on 0
report 02 01 00 00 00 -> 02 00 00 00 00 | down 2
on 1
report 02 00 00 00 00 00 00 00 -> 02 00 00 00 00 00 00 00
on 0
report 02 01 00 00 00 -> 02 00 00 00 00 | down 1, up 2
report 02 00 00 00 00 -> 02 00 00 00 00 | up 1

story Two hotkeys share a media key: the first takes it
keyboard jaalaa
hotkey 1 - E0 19
hotkey 2 - E0 19
report 02 01 00 00 00 -> 02 00 00 00 00 | down 1
report 02 00 00 00 00 -> 02 00 00 00 00 | up 1
remove 1
report 02 01 00 00 00 -> 02 00 00 00 00 | down 2

story Of a chord of media keys only the first key counts
keyboard jaalaa
hotkey 5 - E0 19 E0 24
report 02 04 00 00 00 -> 02 04 00 00 00
report 02 05 00 00 00 -> 02 04 00 00 00 | down 5
report 02 04 00 00 00 -> 02 04 00 00 00 | up 5

story Modifiers alone fire with the media keyboard's next report
keyboard jaalaa
hotkey 6 ctrl
keyboard normal
report 01 00 00 00 00 00 00 00 -> 01 00 00 00 00 00 00 00
on 0
report 02 08 00 00 00 -> 02 08 00 00 00 | down 6
report 01 04 -> 01 04 | up 6                    # among power keys only while none is pressed
report 01 00 -> 01 00 | down 6
on 1
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
on 0
report 02 08 00 00 00 -> 02 08 00 00 00 | up 6

story Sleep is the application's, and another power key is not
keyboard jaalaa
hotkey 7 - E0 5F
report 01 04 -> 01 04
report 01 06 -> 01 06                           # together they are neither
report 01 02 -> 01 00 | down 7
report 01 02 -> 01 00
report 01 00 -> 01 00 | up 7
report 01 02 -> 01 00 | down 7
report 01 04 -> 01 04 | up 7

story Sleep without the Shift that its hotkey asks for is the system's
keyboard jaalaa
hotkey 7 shift E0 5F
report 01 02 -> 01 02
quiet

story A media report ends a power hotkey, and the other way round
keyboard jaalaa
hotkey 3 - E0 19
hotkey 7 - E0 5F
report 01 02 -> 01 00 | down 7
report 02 01 00 00 00 -> 02 00 00 00 00 | down 3, up 7
report 01 00 -> 01 00 | up 3

story What is no media report of this controller passes
keyboard jaalaa
hotkey 3 - E0 19
report 03 00 04 00 00 00 00 00 -> 03 00 04 00 00 00 00 00      # typed keys
report 04 01 00 00 00 -> 04 01 00 00 00
report 02 01 00 00 -> 02 01 00 00                              # too short
report 01 01 00 -> 01 01 00                                    # too long
report 02 01 00 00 00 01 -> 02 00 00 00 00 01 | down 3         # more bytes than keys
quiet

story The other controller has its keys elsewhere
keyboard chic
hotkey 3 - E0 32
hotkey 4 - E0 6C
hotkey 7 - E0 5F
report 03 00 00 04 -> 03 00 00 00 | down 3
report 03 80 40 04 -> 03 80 00 00 | down 4
report 03 80 00 00 -> 03 80 00 00 | up 3, up 4
report 02 04 -> 02 00 | down 7
report 03 00 00 00 -> 03 00 00 00 | up 7
report 02 01 -> 02 01
report 01 00 04 00 00 00 00 00 -> 01 00 04 00 00 00 00 00      # typed keys
report 04 00 00 04 -> 04 00 00 04
report 03 00 00 -> 03 00 00                                    # too short
quiet

story A key that the controller does not have cannot be a hotkey
keyboard chic
refused hotkey 8 - E0 24
refused hotkey 9 - 1E
keyboard jaalaa
hotkey 8 - E0 24
refused hotkey 9 - 1E

story The volume key of a keyboard with power keys
keyboard normal+power
on 1
hotkey 8 - E0 30 swallow
report E9 00 -> 00 00 | down 8
report E9 00 -> 00 00                           # held
wait 2000ms                                     # no repeat outside of point of sale
report 00 00 -> 00 00 | up 8
report B5 00 -> 00 00                           # the first other key after a hotkey is lost
report 00 00 -> 00 00
report B5 00 -> B5 00
report B5 E9 -> B5 00 | down 8
on 0
report 00 00 04 00 00 00 00 00 -> 00 00 04 00 00 00 00 00
quiet

story A power hotkey that only listens takes its key all the same
keyboard power
hotkey 8 - E0 30
report E9 00 -> 00 00 | down 8
report 00 00 -> 00 00 | up 8
quiet

story Half of a wide key is given back
keyboard power
hotkey 9 - E0 32 swallow
report 23 00 -> 00 00
answer -> 23 00
answer -> 00 00
report 23 02 -> 00 00 | down 9
report 00 00 -> 00 00 | up 9
quiet

story The volume key of a keyboard with media keys
keyboard normal+consumer
on 1
hotkey 8 - E0 30 swallow
report 01 E9 00 -> 01 00 00 | down 8
report 01 00 00 -> 01 00 00 | up 8
report 01 EA 00 -> 01 00 00                     # the first other key after a hotkey is lost
report 01 00 00 -> 01 00 00
report 01 EA 00 -> 01 EA 00
quiet
