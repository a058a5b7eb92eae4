# Several keyboards, and interfaces that are none.

story Each report sets the modifiers of its own keyboard
keyboard normal
keyboard normal
on 1
hotkey 4 ctrl 3B swallow
on 0
report 01 00 00 00 00 00 00 00 -> 01 00 00 00 00 00 00 00
modifiers lctrl+ctrl
on 1
report 00 00 3A 00 00 00 00 00 -> 00 00 3A 00 00 00 00 00
report 01 00 3A 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | down 4
on 0
report 01 00 3A 00 00 00 00 00 -> 01 00 3A 00 00 00 00 00
unplug
on 1
report 01 00 00 00 00 00 00 00 -> 01 00 00 00 00 00 00 00 | up 4
quiet

story Another interface is never touched
keyboard other
hotkey 4 - 1E swallow
report 00 00 04 00 00 00 00 00 -> 00 00 04 00 00 00 00 00
quiet

story A definition of an unknown type changes nothing
keyboard normal
define 1 17
define 2 21
define 3 27
define 4 32
report 00 00 29 00 00 00 00 00 -> 00 00 29 00 00 00 00 00
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
quiet
