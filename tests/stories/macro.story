# The macro mode: Caps Lock (0x39) switches it, other keys then play what the macro file says.

story The mode hotkey switches once however long it is held
setting KorvexHotkey 0x00010039
keyboard normal
report 00 00 04 39 00 00 00 00 -> 00 00 04 00 00 00 00 00 | mode 1
shows 04
report 00 00 04 39 00 00 00 00 -> 00 00 04 00 00 00 00 00
report 00 00 39 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
report 00 00 39 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | mode 0
shows 00
quiet

story A macro plays as fast as the system reads
setting KorvexHotkey 0x00010039
setting KorvexLEDDisabled 0
setting KorvexDelay 20
macro 3A 02 00 0B 00 00 00 00 00, 00 00 0C 00 00 00 00 00, 00
keyboard normal
setting KorvexDelay -                # no pace; the macros stay
reread
report 00 00 3A 00 00 00 00 00 -> 00 00 3A 00 00 00 00 00    # the mode is off: F1 is F1
report 00 00 39 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | mode 1
report 00 00 3A 04 00 00 00 00 -> 00 00 04 00 00 00 00 00
answer -> 02 00 0B 00 00 00 00 00
answer -> 00 00 0C 00 00 00 00 00
answer -> 00 00 00 00 00 00 00 00
report 00 00 3A 00 00 00 00 00 -> 00 00 00 00 00 00 00 00    # still held: again
answer -> 02 00 0B 00 00 00 00 00
answer -> 00 00 0C 00 00 00 00 00
answer -> 00 00 00 00 00 00 00 00
quiet

story A macro plays at its pace
setting KorvexHotkey 0x00010039
setting KorvexLEDDisabled 1
setting KorvexDelay 20
macro 3A 00 00 0B 00 00 00 00 00, 00 00 0C 00 00 00 00 00, 00
keyboard normal
report 00 00 39 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | mode 1
shows -
report 00 00 3A 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
answer -> 00 00 0B 00 00 00 00 00
wait 19ms
wait 1ms
answer -> 00 00 0C 00 00 00 00 00
wait 20ms
answer -> 00 00 00 00 00 00 00 00
quiet
report 00 00 04 00 00 00 00 00 -> 00 00 04 00 00 00 00 00
wait 100ms
report 00 00 3A 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
answer -> 00 00 0B 00 00 00 00 00
wait 40ms
answer -> 00 00 0C 00 00 00 00 00
answer -> 00 00 00 00 00 00 00 00
quiet

story A pace of nothing is a pace of one millisecond
setting KorvexHotkey 0x00010039
setting KorvexLEDDisabled 1
setting KorvexDelay 0
macro 3A 00 00 0B 00 00 00 00 00, 00
keyboard normal
report 00 00 39 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | mode 1
report 00 00 3A 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
answer -> 00 00 0B 00 00 00 00 00
wait 1ms
answer -> 00 00 00 00 00 00 00 00
quiet

story Macros on modifiers leave the keys where they are
setting KorvexHotkey 0x00010039
setting KorvexLEDDisabled 1
setting KorvexDelay 10
macro 0102 00 00 10 00 00 00 00 00       # Left Shift
macro 01C0 00 00 11 00 00 00 00 00       # Right Alt or Right Win
keyboard normal
report 00 00 39 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | mode 1
report 03 00 04 00 00 00 00 00 -> 01 00 04 00 00 00 00 00
answer -> 00 00 10 00 00 00 00 00
wait 10ms
report 82 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
answer -> 00 00 10 00 00 00 00 00
wait 10ms
answer -> 00 00 11 00 00 00 00 00
wait 10ms
quiet

story Two macro keys at once, and a key that moves down is only met by the macros behind
setting KorvexHotkey 0x00010039
setting KorvexLEDDisabled 1
setting KorvexDelay 1
macro 3A 00 00 10 00 00 00 00 00
macro 3B 00 00 11 00 00 00 00 00
keyboard normal
report 00 00 39 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | mode 1
report 00 00 3A 3B 05 00 00 00 -> 00 00 05 00 00 00 00 00
answer -> 00 00 10 00 00 00 00 00
wait 1ms
answer -> 00 00 11 00 00 00 00 00
wait 1ms
report 00 00 3B 3A 05 00 00 00 -> 00 00 3A 05 00 00 00 00
answer -> 00 00 11 00 00 00 00 00
wait 1ms
quiet

story What the queue has no room for is not played
setting KorvexHotkey 0x00010039
setting KorvexLEDDisabled 1
setting KorvexDelay 1
macro 3A 00 00 10, 00, 00 00 10, 00, 00 00 10, 00, 00 00 10, 00, 00 00 10, 00, 00 00 10, 00, 00 00 10, 00, 00 00 10, 00
macro 3B 00 00 11, 00                    # 16 reports are queued already
keyboard normal
report 00 00 39 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | mode 1
report 00 00 3A 3B 00 00 00 00 -> 00 00 00 00 00 00 00 00
answer -> 00 00 10 00 00 00 00 00
wait 100ms
answer -> 00 00 00 00 00 00 00 00
answer -> 00 00 10 00 00 00 00 00
answer -> 00 00 00 00 00 00 00 00
answer -> 00 00 10 00 00 00 00 00
answer -> 00 00 00 00 00 00 00 00
answer -> 00 00 10 00 00 00 00 00
answer -> 00 00 00 00 00 00 00 00
answer -> 00 00 10 00 00 00 00 00
answer -> 00 00 00 00 00 00 00 00
answer -> 00 00 10 00 00 00 00 00
answer -> 00 00 00 00 00 00 00 00
answer -> 00 00 10 00 00 00 00 00
answer -> 00 00 00 00 00 00 00 00
answer -> 00 00 10 00 00 00 00 00
answer -> 00 00 00 00 00 00 00 00
quiet

story A macro is recorded
setting KorvexHotkey 0x00010039
setting KorvexLEDDisabled 1
keyboard normal
capture on
report 02 00 0B 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | captured 02 00 0B 00 00 00 00 00
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | captured 00 00 00 00 00 00 00 00
report 00 00 39 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | mode 1
capture off
report 02 00 0B 00 00 00 00 00 -> 02 00 0B 00 00 00 00 00
quiet

story Without a mode hotkey nothing is recorded
keyboard normal
capture on
report 02 00 0B 00 00 00 00 00 -> 02 00 0B 00 00 00 00 00
quiet

story The mode holds for both keyboards, each plays to itself
setting KorvexHotkey 0x00010039
setting KorvexLEDDisabled 0
setting KorvexDelay 20
macro 3A 00 00 0B 00 00 00 00 00, 00
keyboard normal
keyboard normal
on 0
report 00 00 39 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | mode 1
shows 04
report 00 00 3A 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
answer -> 00 00 0B 00 00 00 00 00
wait 5ms
on 1
shows 04
report 00 00 3A 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
on 0
wait 15ms                                # each keyboard has a pace of its own
answer -> 00 00 00 00 00 00 00 00
on 1
wait 5ms
answer -> 00 00 0B 00 00 00 00 00
wait 20ms
answer -> 00 00 00 00 00 00 00 00
quiet

story A keyboard with macros beside a media keyboard without
setting KorvexHotkey 0x00010039
setting KorvexLEDDisabled 0
keyboard consumer
keyboard normal
on 0
report 00 39 00 -> 00 39 00              # the hotkey belongs to the other interface
on 1
report 00 00 39 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | mode 1
shows 04
on 0
shows -
quiet

story The mode hotkey of a power keyboard
setting KorvexHotkey 0x02010023
setting KorvexLEDDisabled 0
keyboard normal
keyboard power
report 23 02 -> 23 00 | mode 1
on 0
shows 04                                 # the LED is the standard keyboard's
report 00 00 23 00 00 00 00 00 -> 00 00 23 00 00 00 00 00
quiet

story The system's LEDs keep Scroll Lock for the mode
setting KorvexHotkey 0x00010039
setting KorvexLEDDisabled 0
keyboard normal
classled 03
shows 03
classled 07
shows 03
led 02 -> 04
shows 02
report 00 00 39 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | mode 1
shows 06
classled 01
shows 05
leds 3                                   # as it reached the keyboard
setting KorvexLEDDisabled 1
reread
classled 01
shows 01

story A file read anew replaces the macros, a broken one does not
setting KorvexHotkey 0x00010039
setting KorvexLEDDisabled 1
setting KorvexDelay 1
macro 3A 00 00 10 00 00 00 00 00
keyboard normal
report 00 00 39 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | mode 1
macrofile empty
macro 3B 00 00 11 00 00 00 00 00
report 00 00 3A 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
answer -> 00 00 10 00 00 00 00 00
wait 1ms
reread
report 00 00 3A 3B 00 00 00 00 -> 00 00 3A 00 00 00 00 00
answer -> 00 00 11 00 00 00 00 00
wait 1ms
macrofile broken
reread
report 00 00 3A 3B 00 00 00 00 -> 00 00 3A 00 00 00 00 00
answer -> 00 00 11 00 00 00 00 00
wait 1ms
macrofile empty
reread
report 00 00 3A 3B 00 00 00 00 -> 00 00 3A 3B 00 00 00 00
quiet

story The macro mode ends with its settings
setting KorvexHotkey 0x00010039
setting KorvexLEDDisabled 0
setting KorvexDelay 1
keyboard normal
led 01 -> 02
shows 01
report 00 00 39 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | mode 1
shows 05
setting KorvexHotkey 0
reread | mode 0
shows 01
report 00 00 39 00 00 00 00 00 -> 00 00 39 00 00 00 00 00
setting KorvexHotkey 0x0001003A          # another one, and the mode is off
reread
report 00 00 39 00 00 00 00 00 -> 00 00 39 00 00 00 00 00
report 00 00 3A 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | mode 1
quiet

story A keyboard that takes part has no hotkeys of the application
setting KorvexHotkey 0x00010039
keyboard normal
hotkey 7 - 3B
report 00 00 3A 00 00 00 00 00 -> 00 00 3A 00 00 00 00 00
setting KorvexHotkey 0
reread | mode 0
report 00 00 3A 00 00 00 00 00 -> 00 00 3A 00 00 00 00 00 | down 7
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | up 7

story A keyboard is pulled out while it plays
setting KorvexHotkey 0x00010039
setting KorvexLEDDisabled 0
setting KorvexDelay 60000
macro 3A 00 00 10 00 00 00 00 00, 00
keyboard normal
keyboard normal
on 0
report 00 00 39 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | mode 1
report 00 00 3A 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
answer -> 00 00 10 00 00 00 00 00
pull
on 1                                     # whose pace does not wait for the one that went
report 00 00 3A 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
answer -> 00 00 10 00 00 00 00 00
unplug

story Asking one keyboard to leave takes the macros from the other
setting KorvexHotkey 0x00010039
setting KorvexLEDDisabled 1
setting KorvexDelay 1
macro 3A 00 00 10 00 00 00 00 00
keyboard normal
keyboard normal
on 0
report 00 00 39 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | mode 1
unplug
on 1
report 00 00 3A 00 00 00 00 00 -> 00 00 3A 00 00 00 00 00
reread
report 00 00 3A 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
answer -> 00 00 10 00 00 00 00 00
wait 1ms
quiet

story Reports of every keyboard may be recorded, but only a standard one's are
setting KorvexHotkey 0x00010039
keyboard normal
keyboard consumer
capture on
on 0
report 00 00 04 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | captured 00 00 04 00 00 00 00 00
on 1
report 01 E9 00 -> 01 E9 00
capture off
quiet

story The macro feature goes while its mode is on, without an LED
setting KorvexHotkey 0x00010039
setting KorvexLEDDisabled 1
keyboard normal
report 00 00 39 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | mode 1
setting KorvexHotkey 0
reread | mode 0
shows -
report 00 00 39 00 00 00 00 00 -> 00 00 39 00 00 00 00 00
quiet

story However many reads the system keeps, each comes back when the macro is over
setting KorvexHotkey 0x00010039
setting KorvexLEDDisabled 1
setting KorvexDelay 20
macro 3A 00 00 0B 00 00 00 00 00, 00 00 0C 00 00 00 00 00, 00
keyboard normal reads=6
report 00 00 39 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | mode 1
report 00 00 3A 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
answer -> 00 00 0B 00 00 00 00 00
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00    # their next reads wait for the pace
report 00 00 04 00 00 00 00 00 -> 00 00 04 00 00 00 00 00
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
wait 20ms
answer -> 00 00 0C 00 00 00 00 00
wait 20ms
answer -> 00 00 00 00 00 00 00 00                            # the macro's last
wait 20ms
answer -> 00 00 00 00 00 00 00 00
answer -> 00 00 00 00 00 00 00 00
answer -> 00 00 00 00 00 00 00 00
quiet

story A keyboard that never answers its LED request types on
setting KorvexHotkey 0x00010039
setting KorvexLEDDisabled 0
keyboard normal passive
answers never
report 00 00 39 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | mode 1
report 00 00 04 00 00 00 00 00 -> 00 00 04 00 00 00 00 00
shows 04
pull

story The mode leaves Num Lock and Caps Lock alone
setting KorvexHotkey 0x00010039
setting KorvexLEDDisabled 0
keyboard normal
classled 03
shows 03
report 00 00 39 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | mode 1
shows 07
leds 7
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
report 00 00 39 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | mode 0
shows 03

story Keyboards that take no part record and play all the same
setting KorvexHotkey 0x02010023          # of a power keyboard
setting KorvexLEDDisabled 1
setting KorvexDelay 1
macro 3A 00 00 10 00 00 00 00 00
keyboard normal
keyboard power
on 0
hotkey 7 - 3B
report 00 00 3A 00 00 00 00 00 -> 00 00 3A 00 00 00 00 00 | down 7   # a keyboard like any other
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | up 7
capture on
report 00 00 3A 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | captured 00 00 3A 00 00 00 00 00
capture off
on 1
report 23 02 -> 23 00 | mode 1
on 0
report 00 00 3A 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
answer -> 00 00 10 00 00 00 00 00
wait 1ms
quiet

story The first of the mode hotkeys that belong to media keyboards
setting KorvexHotkey 0x01000000          # no byte of any three-byte report
setting KorvexLEDDisabled 1
keyboard normal
keyboard consumer
on 0
hotkey 7 - 3B
report 00 00 3A 00 00 00 00 00 -> 00 00 3A 00 00 00 00 00 | down 7
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | up 7
reread
report 00 00 3A 00 00 00 00 00 -> 00 00 3A 00 00 00 00 00 | down 7
on 1
report 01 E9 00 -> 01 00 00 | mode 1
setting KorvexHotkey 0x00FFFFFF          # the last one of standard keyboards; so many bytes are never found
reread
report 01 E9 00 -> 01 E9 00
