# A cashier's keyboard: the application gets the key strokes as scan code bytes. A definition of type 5 switches
# it on; with `swallow` the system sees none of the keys.

story Each key arrives as make and break, and is typed as well
keyboard normal
define 5 5
report 00 00 04 00 00 00 00 00 -> 00 00 04 00 00 00 00 00 | key 1E 5
report 00 00 04 05 00 00 00 00 -> 00 00 04 05 00 00 00 00 | key 30 5
report 00 00 05 00 00 00 00 00 -> 00 00 05 00 00 00 00 00 | key 9E 5
report 00 00 06 00 00 00 00 00 -> 00 00 06 00 00 00 00 00 | key B0 5, key 2E 5
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | key AE 5
quiet

story Keys with longer codes
keyboard normal
define 5 5
report 00 00 52 00 00 00 00 00 -> 00 00 52 00 00 00 00 00 | key E0 5, key 48 5              # up
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | key E0 5, key C8 5
report 00 00 46 00 00 00 00 00 -> 00 00 46 00 00 00 00 00 | key E0 5, key 2A 5, key E0 5, key 37 5  # print screen
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | key E0 5, key AA 5, key E0 5, key B7 5
report 00 00 48 00 00 00 00 00 -> 00 00 48 00 00 00 00 00 | key E1 5, key 1D 5, key 45 5, key E1 5, key 9D 5, key C5 5
wait 2000ms                                                                                 # Pause never repeats
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00

story Modifiers are keys too
keyboard normal
define 5 5
report 02 00 00 00 00 00 00 00 -> 02 00 00 00 00 00 00 00 | key 2A 5
report 12 00 04 00 00 00 00 00 -> 12 00 04 00 00 00 00 00 | key E0 5, key 1D 5, key 1E 5
report 88 00 04 00 00 00 00 00 -> 88 00 04 00 00 00 00 00 | key AA 5, key E0 5, key 5B 5, key E0 5, key 9D 5, key E0 5, key 5C 5
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | key E0 5, key DB 5, key E0 5, key DC 5, key 9E 5

story The system sees nothing of a swallowing cashier's keyboard
keyboard normal
define 5 5 swallow
report 02 00 04 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | key 2A 5, key 1E 5
report 02 00 04 05 00 00 00 00 -> 00 00 00 00 00 00 00 00 | key 30 5
modifiers lshift+shift                                                                      # the driver knows all the same
report 00 00 66 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | key AA 5, key 9E 5, key B0 5    # no scan code: no event
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
report 01 00 01 01 01 01 01 01 -> 01 00 01 01 01 01 01 01                                   # too many keys at once
quiet

story A held key repeats after the delay, at the rate
keyboard normal
define 5 5 swallow
report 00 00 04 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | key 1E 5
wait 566ms
wait 1ms | repeat 1E 5
wait 67ms | repeat 1E 5
wait 134ms | repeat 1E 5, repeat 1E 5
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | key 9E 5
wait 2000ms

story A key with a longer code repeats whole, print screen with its second half
keyboard normal
define 5 5
report 00 00 52 00 00 00 00 00 -> 00 00 52 00 00 00 00 00 | key E0 5, key 48 5
wait 567ms | repeat E0 5, repeat 48 5
report 00 00 46 00 00 00 00 00 -> 00 00 46 00 00 00 00 00 | key E0 5, key C8 5, key E0 5, key 2A 5, key E0 5, key 37 5
wait 567ms | repeat E0 5, repeat 37 5

story Another key takes the repeat over, its release ends it
keyboard normal
define 5 5
report 00 00 04 00 00 00 00 00 -> 00 00 04 00 00 00 00 00 | key 1E 5
wait 567ms | repeat 1E 5
report 00 00 04 05 00 00 00 00 -> 00 00 04 05 00 00 00 00 | key 30 5
wait 566ms
wait 1ms | repeat 30 5
report 00 00 04 00 00 00 00 00 -> 00 00 04 00 00 00 00 00 | key B0 5
wait 2000ms                                                                                 # A is still held
report 02 00 04 00 00 00 00 00 -> 02 00 04 00 00 00 00 00 | key 2A 5
wait 567ms | repeat 2A 5                                                                    # Shift repeats like a key

story The mode is taken away under a repeating key: one event more
keyboard normal
define 5 5
report 00 00 04 00 00 00 00 00 -> 00 00 04 00 00 00 00 00 | key 1E 5
wait 567ms | repeat 1E 5
remove 5
wait 67ms | down 5
wait 2000ms
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00

story A key held when the mode comes is pressed in it
keyboard normal
report 00 00 04 00 00 00 00 00 -> 00 00 04 00 00 00 00 00
define 5 5
report 00 00 04 00 00 00 00 00 -> 00 00 04 00 00 00 00 00 | key 1E 5
define 6 7                                                                                  # starts it anew
report 00 00 04 00 00 00 00 00 -> 00 00 04 00 00 00 00 00 | key 1E 5
define 7 4                                                                                  # so does any of its family
report 00 00 04 00 00 00 00 00 -> 00 00 04 00 00 00 00 00 | key 1E 5
define 8 8
report 00 00 04 00 00 00 00 00 -> 00 00 04 00 00 00 00 00 | key 1E 5
define 9 3
define 10 9
report 00 00 04 00 00 00 00 00 -> 00 00 04 00 00 00 00 00

story Point of sale goes before hotkeys
keyboard normal
hotkey 7 ctrl 3B swallow
define 5 5
report 01 00 3A 00 00 00 00 00 -> 01 00 3A 00 00 00 00 00 | key 1D 5, key 3B 5
processing off
report 01 00 00 00 00 00 00 00 -> 01 00 00 00 00 00 00 00
wait 567ms | repeat 3B 5                                                                    # nobody ended it
processing on
report 01 00 00 00 00 00 00 00 -> 01 00 00 00 00 00 00 00 | key BB 5

story Volume is held on the media keys while the cashier types
keyboard normal+consumer
define 5 5
on 1
define 6 5
report 01 E9 00 -> 01 E9 00 | key E0 6, key 30 6
wait 567ms | repeat E0 6, repeat 30 6
on 0
report 00 00 04 00 00 00 00 00 -> 00 00 04 00 00 00 00 00 | key 1E 5
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | key 9E 5
on 1
wait 67ms | repeat E0 6, repeat 30 6
report 01 00 00 -> 01 00 00 | key E0 6, key B0 6
wait 2000ms
quiet

story Media keys follow one another
keyboard consumer
define 5 5
report 01 23 02 -> 01 23 02 | key E0 5, key 32 5                                            # home page
wait 2000ms                                                                                 # does not repeat
report 01 E9 00 -> 01 E9 00 | key E0 5, key B2 5, key E0 5, key 30 5
report 01 E9 00 -> 01 E9 00 | key E0 5, key B0 5, key E0 5, key 30 5                        # told once more
report 01 E5 00 -> 01 E5 00 | key E0 5, key B0 5, key 36 5                                  # as the key page has it
report 01 94 01 -> 01 94 01 | key B6 5, key E0 5, key 6B 5
report 01 52 01 -> 01 52 01 | key E0 5, key EB 5                                            # bass up: no scan code
report 01 00 00 -> 01 00 00

story Swallowed media keys
keyboard consumer
define 5 5 swallow
report 01 E9 00 -> 01 00 00 | key E0 5, key 30 5
report 01 00 00 -> 01 00 00 | key E0 5, key B0 5

story Power keys: only wide ones are known, and half of one is swallowed
keyboard power
define 5 5 swallow
report 23 02 -> 23 00 | key E0 5, key 32 5
wait 2000ms
report 00 00 -> 00 00 | key E0 5, key B2 5
report E9 00 -> E9 00
report 02 02 -> 02 00 | key E0 5, key 5F 5
report 23 02 -> 23 00 | key E0 5, key DF 5, key E0 5, key 32 5

story The bits of a media controller are no keys here
keyboard jaalaa
define 5 5 swallow
report 02 01 00 00 00 -> 02 01 00 00 00
report 01 02 -> 01 00
report 03 00 04 00 00 00 00 00 -> 03 00 04 00 00 00 00 00

story The keyboard is pulled while a key repeats
keyboard normal
define 5 5
report 00 00 04 00 00 00 00 00 -> 00 00 04 00 00 00 00 00 | key 1E 5
wait 567ms | repeat 1E 5
pull
wait 2000ms

# The types are kept as bits of one word, so another type may stand for point of sale; its definition does not.
story Point of sale without its definition tells with no id
keyboard normal
define 9 37 swallow
report 00 00 04 00 00 00 00 00 -> 00 00 04 00 00 00 00 00 | key 1E 0
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | key 9E 0
quiet
