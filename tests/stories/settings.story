# The two switches of the report analysis.

story Simple matching takes the key out and leaves the modifiers
setting RunDiagNormalPacket02 1
keyboard normal
hotkey 7 ctrl 3B
report 01 00 3A 00 00 00 00 00 -> 01 00 00 00 00 00 00 00 | down 7
report 01 00 3A 04 00 00 00 00 -> 01 00 04 00 00 00 00 00
report 01 00 04 00 00 00 00 00 -> 01 00 04 00 00 00 00 00 | up 7

story Simple matching ends a hotkey whose modifier is let go
setting RunDiagNormalPacket02 1
keyboard normal
hotkey 7 ctrl 3B
report 01 00 3A 00 00 00 00 00 -> 01 00 00 00 00 00 00 00 | down 7
report 00 00 3A 00 00 00 00 00 -> 00 00 3A 00 00 00 00 00 | up 7

story Up events at once
setting RunDiagNormalPacket02 1
setting SendUpEventImmediately 1
keyboard normal
hotkey 7 ctrl 3B
hotkey 3 lalt
report 01 00 3A 00 00 00 00 00 -> 01 00 00 00 00 00 00 00 | down 7, up 7
report 01 00 00 00 00 00 00 00 -> 01 00 00 00 00 00 00 00
report 04 00 00 00 00 00 00 00 -> 04 00 00 00 00 00 00 00 | down 3, up 3
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00

story Up events at once, each time
setting RunDiagNormalPacket02 1
setting SendUpEventImmediately 1
keyboard normal
hotkey 7 ctrl 3B
hotkey 3 lalt
report 01 00 3A 00 00 00 00 00 -> 01 00 00 00 00 00 00 00 | down 7, up 7
report 01 00 3A 04 00 00 00 00 -> 01 00 04 00 00 00 00 00            # held
report 01 00 00 00 00 00 00 00 -> 01 00 00 00 00 00 00 00
report 01 00 3A 00 00 00 00 00 -> 01 00 00 00 00 00 00 00 | down 7, up 7
report 00 00 3A 00 00 00 00 00 -> 00 00 3A 00 00 00 00 00
report 01 00 3A 00 00 00 00 00 -> 01 00 00 00 00 00 00 00 | down 7, up 7
report 04 00 00 00 00 00 00 00 -> 04 00 00 00 00 00 00 00 | down 3, up 3
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
report 04 00 00 00 00 00 00 00 -> 04 00 00 00 00 00 00 00 | down 3, up 3

story Without that switch a hotkey of modifiers is told up when they are let go
setting RunDiagNormalPacket02 1
keyboard normal
hotkey 3 lalt
report 04 00 00 00 00 00 00 00 -> 04 00 00 00 00 00 00 00 | down 3
report 04 00 04 00 00 00 00 00 -> 04 00 04 00 00 00 00 00
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | up 3

story Simple matching looks at the modifiers that are left
setting RunDiagNormalPacket02 1
keyboard normal
hotkey 3 lctrl swallow
hotkey 7 ctrl 3B
report 01 00 3A 00 00 00 00 00 -> 00 00 3A 00 00 00 00 00 | down 3
report 10 00 3A 00 00 00 00 00 -> 10 00 00 00 00 00 00 00 | up 3, down 7
