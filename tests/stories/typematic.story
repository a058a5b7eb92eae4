# The key repeat of the system, which the driver takes over at each keyboard's start.

story The system's key repeat is used for held keys
class 1 31 250                                             # the fastest; 0 and 2 are absent
keyboard normal
define 5 5
report 00 00 04 00 00 00 00 00 -> 00 00 04 00 00 00 00 00 | key 1E 5
wait 282ms                                                 # 250 ms, then a period of 33 ms
wait 1ms | repeat 1E 5
wait 33ms | repeat 1E 5
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | key 9E 5
typematic -> 31 250
quiet

story Without a class device the driver's own key repeat holds
keyboard normal
typematic -> refused
typematic 30 0 -> refused
define 5 5
report 00 00 04 00 00 00 00 00 -> 00 00 04 00 00 00 00 00 | key 1E 5
wait 566ms
wait 1ms | repeat 1E 5
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | key 9E 5

story The application sets the key repeat within bounds
class 1 10 500
keyboard normal
typematic 1 0
class 1 -> 2 250
typematic 31 2
class 1 -> 20 750
typematic 30 7
class 1 -> 30 1000
define 5 5
report 00 00 04 00 00 00 00 00 -> 00 00 04 00 00 00 00 00 | key 1E 5
wait 1037ms
wait 1ms | repeat 1E 5                                     # 1000 ms, then the period of row 30
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | key 9E 5

story The first class device that answers has the say
class 0 5 250 refuses
class 1 6 500 closed
class 3 7 750 slow
class 4 8 1000
keyboard normal
typematic -> 7 750
typematic 12 1
class 3 -> 12 500
class 4 -> 8 1000
class 0 -> 5 250
class 0 5 250                                              # comes to its senses
typematic -> 5 250

story A repeat too fast and a delay too long are bounded
class 2 100 5000
keyboard normal
typematic -> 100 5000                                      # told as the system says
define 5 5
report 00 00 04 00 00 00 00 00 -> 00 00 04 00 00 00 00 00 | key 1E 5
wait 1032ms
wait 1ms | repeat 1E 5
wait 33ms | repeat 1E 5
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | key 9E 5

story Another keyboard's start takes over what the system has now
class 0 10 500
keyboard normal
class 0 31 250
define 5 5
report 00 00 04 00 00 00 00 00 -> 00 00 04 00 00 00 00 00 | key 1E 5
wait 716ms
wait 1ms | repeat 1E 5                                     # 500 ms, then the period of row 10
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | key 9E 5
keyboard normal
on 0
report 00 00 04 00 00 00 00 00 -> 00 00 04 00 00 00 00 00 | key 1E 5
wait 283ms | repeat 1E 5
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | key 9E 5
quiet

# A cashier's key repeats on one keyboard; whatever ends a hotkey on another ends that too.
story What ends a hotkey ends the repeat of every keyboard
keyboard normal
define 5 5
keyboard normal
hotkey 7 ctrl 3B swallow
on 0
report 00 00 04 00 00 00 00 00 -> 00 00 04 00 00 00 00 00 | key 1E 5
wait 567ms | repeat 1E 5
on 1
report 01 00 3A 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | down 7
report 01 00 00 00 00 00 00 00 -> 01 00 00 00 00 00 00 00 | up 7
on 0
wait 2000ms
report 00 00 04 05 00 00 00 00 -> 00 00 04 05 00 00 00 00 | key 30 5
wait 567ms | repeat 30 5
on 1
report 01 00 3A 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | down 7
report 01 00 3A 04 00 00 00 00 -> 00 00 04 00 00 00 00 00 | up 7
on 0
wait 2000ms
report 00 00 04 05 06 00 00 00 -> 00 00 04 05 06 00 00 00 | key 2E 5
wait 567ms | repeat 2E 5
on 1
report 01 00 3A 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | down 7
report 01 00 3A 29 00 00 00 00 -> 00 00 00 00 00 00 00 00
on 0
wait 2000ms

story The keyboard class devices answer late, also when the keyboard comes back
class 0 5 250 refuses
class 1 7 750 slow
keyboard normal
typematic -> 7 750
class 1 31 250 slow
pull
replug
typematic -> 31 250
define 5 5
report 00 00 04 00 00 00 00 00 -> 00 00 04 00 00 00 00 00 | key 1E 5
wait 283ms | repeat 1E 5
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | key 9E 5

# The delay of a held volume hotkey ends after its keyboard has become a cashier's, which has no key to repeat yet.
story A volume hotkey that is held when point of sale comes
keyboard normal
hotkey 5 - E0 2E
hotkey 7 - 3B
report 00 00 3A 00 00 00 00 00 -> 00 00 3A 00 00 00 00 00 | down 7
define 6 5
wait 2000ms                              # no volume key
remove 6
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | up 7
report 00 00 EA 00 00 00 00 00 -> 00 00 EA 00 00 00 00 00 | down 5
define 6 5
wait 566ms
wait 1ms | up 5
report 00 00 EA 00 00 00 00 00 -> 00 00 EA 00 00 00 00 00
wait 2000ms
