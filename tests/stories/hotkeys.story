# Hotkeys: what the system sees of them and what the application is told.
# Scan codes are PS/2 set 1: 3B = F1, 1E = A, 30 = B. Usages: 3A = F1, 04 = A, 05 = B, 29 = Esc.

story Ctrl+F1 never reaches the system
keyboard normal
hotkey 7 ctrl 3B swallow
report 01 00 00 00 00 00 00 00 -> 01 00 00 00 00 00 00 00
report 01 00 3A 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | down 7
report 01 00 00 00 00 00 00 00 -> 01 00 00 00 00 00 00 00 | up 7
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
quiet

story A hotkey that only listens gives its key back
keyboard normal
hotkey 7 ctrl 3B
report 10 00 3A 00 00 00 00 00 -> 10 00 3A 00 00 00 00 00 | down 7   # either Control will do
report 10 00 00 00 00 00 00 00 -> 10 00 00 00 00 00 00 00 | up 7
quiet

story More modifiers than asked for still fire the hotkey
keyboard normal
hotkey 7 lctrl 3B swallow
report 07 00 3A 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | down 7
report 10 00 00 00 00 00 00 00 -> 10 00 00 00 00 00 00 00 | up 7
report 10 00 3A 00 00 00 00 00 -> 10 00 3A 00 00 00 00 00            # the right one was not asked for

story Esc while the hotkey is held aborts it
keyboard normal
hotkey 7 ctrl 3B swallow
report 01 00 3A 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | down 7
report 01 00 3A 29 00 00 00 00 -> 00 00 00 00 00 00 00 00
report 01 00 00 00 00 00 00 00 -> 01 00 00 00 00 00 00 00 | up 7 abort
report 01 00 3A 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | down 7   # the next one is no abort
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | up 7

story Another key ends the hotkey and is typed
keyboard normal
hotkey 7 ctrl 3B swallow
report 01 00 3A 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | down 7
report 01 00 3A 04 00 00 00 00 -> 00 00 04 00 00 00 00 00 | up 7
report 01 00 00 00 00 00 00 00 -> 01 00 00 00 00 00 00 00

story A and B together are a hotkey, A alone is an A
keyboard normal
hotkey 5 - 1E 30 swallow
report 00 00 04 00 00 00 00 00 -> 00 00 04 00 00 00 00 00
report 00 00 04 05 00 00 00 00 -> 00 00 00 00 00 00 00 00 | down 5
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | up 5
quiet

story Modifiers alone are a hotkey
keyboard normal
hotkey 3 lctrl+lalt swallow
report 01 00 00 00 00 00 00 00 -> 01 00 00 00 00 00 00 00
report 05 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | down 3
report 05 00 04 00 00 00 00 00 -> 00 00 04 00 00 00 00 00            # held
report 01 00 00 00 00 00 00 00 -> 01 00 00 00 00 00 00 00 | up 3

story The context key is a modifier and a key
keyboard normal
hotkey 6 context
report 00 00 65 00 00 00 00 00 -> 00 00 65 00 00 00 00 00 | down 6
modifiers context
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | up 6
modifiers -

story Two hotkeys that differ in their modifiers
keyboard normal
hotkey 1 ctrl 3B swallow
hotkey 2 shift 3B swallow
report 02 00 3A 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | down 2
report 02 00 00 00 00 00 00 00 -> 02 00 00 00 00 00 00 00 | up 2
report 03 00 3A 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | down 1, down 2
report 03 00 00 00 00 00 00 00 -> 03 00 00 00 00 00 00 00 | up 1, up 2

story Without report processing nothing is a hotkey
keyboard normal
hotkey 7 ctrl 3B swallow
processing off
report 01 00 3A 00 00 00 00 00 -> 01 00 3A 00 00 00 00 00
modifiers lctrl+ctrl
processing on
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
report 01 00 3A 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | down 7

story A removed hotkey is an ordinary key again
keyboard normal
hotkey 7 ctrl 3B swallow
report 01 00 3A 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | down 7
remove 7
report 01 00 00 00 00 00 00 00 -> 01 00 00 00 00 00 00 00
report 01 00 3A 00 00 00 00 00 -> 01 00 3A 00 00 00 00 00

story What cannot be a hotkey is refused
keyboard normal
refused hotkey 7 ctrl 7F        # no key has this scan code
refused hotkey 7 ctrl E0        # a prefix without its key
remove 7                        # it is kept as a definition all the same
remove 7
hotkey 8 ctrl 3B
refused hotkey 8 ctrl 3B        # the same once more

story The keyboard is pulled while a hotkey is held
keyboard normal
hotkey 7 ctrl 3B swallow
report 01 00 3A 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | down 7
pull

story Too many keys at once pass as they are
keyboard normal
hotkey 7 ctrl 3B swallow
report 01 00 01 01 01 01 01 01 -> 01 00 01 01 01 01 01 01
report 00 00 04 05 06 07 08 09 -> 00 00 04 05 06 07 08 09

story Two hotkeys of one id are two hotkeys
keyboard normal
define 3 0                      # of no type: nothing comes of it
define 4 5
hotkey 7 ctrl 3B swallow
hotkey 7 ctrl 3B 3C swallow
remove 4
report 01 00 3A 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | down 7
report 01 00 3A 3B 00 00 00 00 -> 00 00 00 00 00 00 00 00 | down 7
report 01 00 00 00 00 00 00 00 -> 01 00 00 00 00 00 00 00 | up 7, up 7
report 01 00 3A 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | down 7
report 01 00 3A 04 00 00 00 00 -> 00 00 04 00 00 00 00 00 | up 7
quiet

story A hotkey of modifiers alone beside one with a key
keyboard normal
hotkey 3 lctrl+lalt swallow
hotkey 7 ctrl 3B swallow
report 01 00 3A 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | down 7
report 05 00 3A 00 00 00 00 00 -> 00 00 3A 00 00 00 00 00 | down 3, up 7   # 3 takes the Ctrl of 7 away
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | up 3
quiet

story Keys of a hotkey that another key breaks off are typed
keyboard normal
hotkey 5 ctrl 1E 30
report 01 00 04 00 00 00 00 00 -> 01 00 04 00 00 00 00 00
report 01 00 04 06 00 00 00 00 -> 01 00 04 06 00 00 00 00
report 01 00 00 00 00 00 00 00 -> 01 00 00 00 00 00 00 00
quiet

story Volume keys of a hotkey repeat for nobody but a cashier
keyboard normal
hotkey 5 - E0 2E
report 00 00 EA 00 00 00 00 00 -> 00 00 EA 00 00 00 00 00 | down 5
wait 2000ms
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | up 5
quiet

story A released hotkey takes all keys of its report along
keyboard normal
hotkey 7 ctrl 3B
report 01 00 3A 00 00 00 00 00 -> 01 00 3A 00 00 00 00 00 | down 7
report 01 00 04 05 06 07 08 09 -> 01 00 00 00 00 00 00 00 | up 7
report 01 00 04 05 06 07 08 09 -> 01 00 04 05 06 07 08 09
quiet

story The second way to look for hotkeys, among six keys
setting RunDiagNormalPacket02 1
keyboard normal
hotkey 7 ctrl 3B
report 01 00 04 05 06 07 08 09 -> 01 00 04 05 06 07 08 09
report 01 00 04 05 06 07 08 3A -> 01 00 04 05 06 07 08 00 | down 7
report 00 00 04 05 06 07 08 3A -> 00 00 04 05 06 07 08 3A | up 7
quiet

story The modifiers are those of the report that the system gets
keyboard normal
hotkey 7 ctrl 3B swallow
report 01 00 3A 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | down 7
modifiers -
report 01 00 00 00 00 00 00 00 -> 01 00 00 00 00 00 00 00 | up 7
modifiers lctrl+ctrl

story An abort is told once, by whichever event comes next
keyboard normal
hotkey 3 lalt
hotkey 7 ctrl 3B swallow
report 01 00 3A 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | down 7
report 01 00 3A 29 00 00 00 00 -> 00 00 00 00 00 00 00 00
report 05 00 3A 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | down 3 abort, up 7, down 7
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | up 3, up 7

story An Esc held before the hotkey is let go
keyboard normal
hotkey 7 ctrl 3B swallow
report 00 00 29 00 00 00 00 00 -> 00 00 29 00 00 00 00 00
report 01 00 29 3A 00 00 00 00 -> 00 00 29 00 00 00 00 00 | down 7
report 01 00 3A 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | up 7, down 7   # a key of no hotkey ends it, but is no abort
report 01 00 00 00 00 00 00 00 -> 01 00 00 00 00 00 00 00 | up 7

# F2 completes 1 and takes F3's hotkey its keys away in one walk of the list: then nothing is complete, and the
# keys that were held back for it are typed although 1 swallows.
story A hotkey that ends takes back the one that came with it
keyboard normal
hotkey 1 - 3B 3C swallow
hotkey 2 - 3B 3D swallow
report 00 00 3A 3C 00 00 00 00 -> 00 00 00 00 00 00 00 00 | down 2
report 00 00 3A 3B 3C 00 00 00 -> 00 00 3B 3C 00 00 00 00 | down 1, up 2
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | up 1
quiet

story Either key of a pair is enough for any of it, and only its own for one side
keyboard normal
hotkey 1 win 3B swallow
hotkey 2 rwin 3C swallow
hotkey 3 win+lwin 3D swallow             # any of both was meant
hotkey 4 rshift+ralt 3E swallow
report 80 00 3A 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | down 1
report 08 00 3A 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
report 08 00 3B 00 00 00 00 00 -> 08 00 00 00 00 00 00 00 | up 1
report 88 00 3B 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | down 2
report 80 00 3C 00 00 00 00 00 -> 80 00 00 00 00 00 00 00 | up 2
report 80 00 3C 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | down 3
report 80 00 00 00 00 00 00 00 -> 80 00 00 00 00 00 00 00 | up 3
modifiers rwin+win
report 60 00 3D 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | down 4
report 62 00 00 00 00 00 00 00 -> 62 00 00 00 00 00 00 00 | up 4
modifiers lshift+rshift+shift+ralt+alt

story A hotkey made of a prefix key alone is one of its modifiers
keyboard normal
hotkey 7 lctrl 7D
report 01 00 00 00 00 00 00 00 -> 01 00 00 00 00 00 00 00 | down 7
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | up 7
keyboard power
hotkey 8 - E0 0E E0 30                   # Fn is no key there: volume up alone
report E9 00 -> 00 00 | down 8
report 00 00 -> 00 00 | up 8
