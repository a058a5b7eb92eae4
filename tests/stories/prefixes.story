# Prefix keys are pressed and released before the key that they modify. Usage 89 is Prefix1, 8B Prefix2.

story A prefix and then a key
keyboard normal
hotkey 9 prefix1 1E swallow
report 00 00 89 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
modifiers prefix1
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
report 00 00 04 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | down 9
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | up 9
modifiers -
report 00 00 04 00 00 00 00 00 -> 00 00 04 00 00 00 00 00

story Behind a prefix a key of no hotkey is dropped
keyboard normal
hotkey 9 prefix1 1E swallow
report 00 00 89 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
report 00 00 05 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
modifiers -

story A prefix that no hotkey uses is forgotten at once
keyboard normal
hotkey 7 ctrl 3B
report 00 00 8B 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
modifiers -
report 00 00 04 00 00 00 00 00 -> 00 00 04 00 00 00 00 00

story Another key can be the prefix
setting Prefix1 0x3F                # F5
keyboard normal
hotkey 9 prefix1 1E swallow
report 00 00 3E 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
report 00 00 04 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | down 9

# The keys are stripped from where the walk of the report ended once it has become shorter, so Fn is left
# in the report whose other key was taken out.
story The Fn key is a modifier of its own
keyboard normal
hotkey 4 fn 1E swallow
report 00 00 A5 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
modifiers fn
report 00 00 A5 04 00 00 00 00 -> 00 00 A5 00 00 00 00 00 | down 4
report 00 00 A5 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | up 4
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
modifiers -

story Behind a prefix the keys of a hotkey that breaks off are lost
keyboard normal
hotkey 9 prefix1 1E 30
report 00 00 89 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
report 00 00 04 00 00 00 00 00 -> 00 00 04 00 00 00 00 00
report 00 00 04 06 00 00 00 00 -> 00 00 00 00 00 00 00 00
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
modifiers -
quiet

# Fn is a key of a hotkey here, which holds it back; what breaks the hotkey off gives the other key back alone.
story Fn itself is never typed
keyboard normal
hotkey 4 fn E0 0E 1E
report 00 00 A5 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
report 00 00 A5 05 00 00 00 00 -> 00 00 05 00 00 00 00 00
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
quiet

story A prefix without a key is none
setting Prefix1 0xFFFF                   # no key has this scan code
keyboard normal
hotkey 9 prefix1 1E swallow
report 00 00 89 00 00 00 00 00 -> 00 00 89 00 00 00 00 00
modifiers -
report 00 00 04 00 00 00 00 00 -> 00 00 04 00 00 00 00 00
quiet

story A prefix key that breaks a hotkey off is not typed
keyboard normal
hotkey 9 prefix1 1E 30
report 00 00 04 89 00 00 00 00 -> 00 00 04 00 00 00 00 00
modifiers prefix1
quiet

story A prefix that no hotkey uses spoils none that comes after
keyboard normal
hotkey 9 prefix1 1E swallow
report 00 00 8B 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
report 00 00 89 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
report 00 00 04 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | down 9

story Fn and prefix keys are typed on no keyboard
keyboard consumer
hotkey 7 - 3B
report 01 A5 04 -> 01 04 00
report 01 89 00 -> 01 00 00
report 01 04 8B -> 01 04 00
report 01 8A A5 -> 01 00 00

story A hotkey that only listens keeps its key when a prefix went before it
keyboard normal
hotkey 9 prefix1 1E
hotkey 5 - 3B                            # waits, and is no reason to keep it for later
report 00 00 89 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
report 00 00 04 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | down 9
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | up 9
