# The family's mouse filters, which are told which modifiers are held.

story A mouse sees the modifiers come and go, in order
mouse ps2 comes
keyboard normal
report 01 00 00 00 00 00 00 00 -> 01 00 00 00 00 00 00 00
report 01 00 04 00 00 00 00 00 -> 01 00 04 00 00 00 00 00       # a letter changes nothing
report 21 00 00 00 00 00 00 00 -> 21 00 00 00 00 00 00 00
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
mouse ps2 -> lctrl+ctrl, lctrl+ctrl+rshift+shift, -
quiet

story A mouse sees the modifiers of reports that are looked at, too
mouse ps2 comes
keyboard normal
hotkey 7 lctrl 3B
report 02 00 00 00 00 00 00 00 -> 02 00 00 00 00 00 00 00
report 02 00 04 00 00 00 00 00 -> 02 00 04 00 00 00 00 00
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
mouse ps2 -> lshift+shift, -
quiet

story Each mouse is told what happens while it is there
keyboard normal
report 01 00 00 00 00 00 00 00 -> 01 00 00 00 00 00 00 00       # nobody to tell
mouse usb comes
mouse usb ->
report 03 00 00 00 00 00 00 00 -> 03 00 00 00 00 00 00 00
mouse ps2 comes
report 02 00 00 00 00 00 00 00 -> 02 00 00 00 00 00 00 00
mouse usb goes
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
mouse usb comes
report 08 00 00 00 00 00 00 00 -> 08 00 00 00 00 00 00 00
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
mouse usb -> lctrl+ctrl+lshift+shift, lshift+shift, lwin+win, -
mouse ps2 -> lshift+shift, -, lwin+win, -
quiet

story One word for all keyboards
mouse usb comes
keyboard normal
keyboard normal
report 01 00 00 00 00 00 00 00 -> 01 00 00 00 00 00 00 00
on 0
report 02 00 00 00 00 00 00 00 -> 02 00 00 00 00 00 00 00
mouse usb -> lctrl+ctrl, lshift+shift
unplug
on 1
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
mouse usb -> -

story A mouse that errs or takes its time keeps nothing from the other
keyboard normal
mouse ps2 comes refuses
mouse usb comes slow
report 01 00 00 00 00 00 00 00 -> 01 00 00 00 00 00 00 00
wait 50ms
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
wait 50ms
mouse ps2 -> lctrl+ctrl, -
mouse usb -> lctrl+ctrl, -

story A mouse that does not open is told nothing until it comes again
keyboard normal
mouse usb comes closed
report 01 00 00 00 00 00 00 00 -> 01 00 00 00 00 00 00 00
mouse usb goes
mouse usb comes
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
mouse usb -> -

story Keyboards and the driver go while a mouse does not answer
keyboard normal
mouse usb comes silent
report 01 00 00 00 00 00 00 00 -> 01 00 00 00 00 00 00 00
report 00 00 00 00 00 00 00 00 -> 00 00 00 00 00 00 00 00
unplug
mouse usb -> lctrl+ctrl, -
