# Discard mode: while a definition of type 11 exists the system sees nothing; what changed meanwhile is told after.

story Discard mode hides the keyboard and replays its lock keys
keyboard normal
define 9 11
report 00 00 39 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
report 02 00 04 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
report 02 00 29 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | key 01 9
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
remove 9
answer -> 00 00 39 00 00 00 00 00
answer -> 02 00 00 00 00 00 00 00
answer -> 00 00 00 00 00 00 00 00
report 00 00 04 00 00 00 00 00 -> 00 00 04 00 00 00 00 00
quiet

story Leaving discard mode with nothing held back calls no read back
keyboard normal
define 9 11
report 00 00 04 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
remove 9
quiet

story Entered with Caps Lock held, left again
keyboard normal
report 00 00 39 00 00 00 00 00 -> 00 00 39 00 00 00 00 00
define 9 11
report 00 00 39 04 00 00 00 00 -> 00 00 00 00 00 00 00 00
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
report 00 00 53 47 00 00 00 00 -> 00 00 00 00 00 00 00 00
remove 9
answer -> 00 00 39 00 00 00 00 00        # each report that held it tells it again
answer -> 00 00 53 00 00 00 00 00
answer -> 00 00 47 00 00 00 00 00
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
quiet

story Esc is told with the definition's id, once for each report that holds it
keyboard normal
define 12 11
report 00 00 29 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | key 01 12
report 00 00 29 04 00 00 00 00 -> 00 00 00 00 00 00 00 00 | key 01 12
report 01 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
remove 12
answer -> 01 00 00 00 00 00 00 00
answer -> 00 00 00 00 00 00 00 00
quiet

story Without the application's switch there is no discard mode
keyboard normal
define 9 11
processing off
report 00 00 04 00 00 00 00 00 -> 00 00 04 00 00 00 00 00
processing on
report 00 00 04 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
quiet

story Hotkeys rest in discard mode, reports put in do not
keyboard normal
hotkey 7 - 3B
define 9 11
report 00 00 3A 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
packet 00 00 04 00 00 00 00 00
answer -> 00 00 04 00 00 00 00 00
remove 9
report 00 00 3A 00 00 00 00 00 -> 00 00 3A 00 00 00 00 00 | down 7

story A keyboard in the macro mode is not discarded
setting KorvexHotkey 0x00010039
keyboard normal
define 9 11
report 00 00 04 00 00 00 00 00 -> 00 00 04 00 00 00 00 00
remove 9
quiet

story Discard mode ends with the last of its definitions
keyboard normal
define 9 11
define 10 11
report 00 00 39 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
remove 9
report 00 00 29 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | key 01 10
remove 10
answer -> 00 00 39 00 00 00 00 00
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
quiet

story Volume keys are discarded too, behind the byte that tells what the report is
keyboard consumer
define 9 11
report 01 E9 00 -> 01 00 00
report 01 00 00 -> 01 00 00
remove 9
report 01 E9 00 -> 01 E9 00
quiet

story Esc without a definition of discard mode is told with no id
keyboard normal
define 9 43                          # the mask's bit alone
report 00 00 29 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | key 01 0
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
quiet
