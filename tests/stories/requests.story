# What an application asks of the keyboard itself.

story The application lights the LEDs
keyboard normal
setled 01 -> 04
setled 02 -> 01
setled 04 -> 02
leds 04
setled FF -> 07
leds 07
led 01 -> 02
leds 02
quiet

story LEDs that the keyboard refuses
keyboard normal
answers stall
refused setled 03 -> 05
leds 03
answers well
setled 00 -> 00

story The EEPROM keeps what was written
keyboard normal
size 64
read eeprom 10 4 -> FF FF FF FF
write eeprom 10 01 02 03
read eeprom 0F 5 -> FF 01 02 03 FF
refused write eeprom 3F 01 02
read eeprom 3F 1 -> FF
pull
refused read eeprom 10 1
replug
read eeprom 10 3 -> 01 02 03

# Of the address only the low byte reads, but both write.
story The EEPROM's address is cut when it is read
keyboard normal
write eeprom 34 07
read eeprom 1234 1 -> 07
refused write eeprom 1234 08

story Each family has a memory of its own
keyboard normal
write descriptor 0102 11 12
write vendor 0102 21 22
write eeprom 02 31 32
read descriptor 0102 2 -> 11 12
read vendor 0102 2 -> 21 22
read eeprom 02 2 -> 31 32
read descriptor 0100 3 -> FF FF 11
read descriptor 0102 0 ->
read vendor 0102 0 ->
write vendor 0102
write descriptor 0102

story A short answer leaves zeros
keyboard normal
write vendor 0 01 02 03 04
answers short 2
read vendor 0 4 -> 01 02 00 00
descriptor -> 12 01 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00
answers stall
refused read vendor 0 4 ->
descriptor ->

story Descriptors and strings
keyboard normal
string 2 0409 -> Boot keyboard
string 2 0407 -> Nachgebildete Tastatur
string 2 040C -> Clavier émulé
string 3 0409 -> 0001
string 4 0409 -> -
string 9 0409 -> -
string 3 0411 -> -
answers late 40ms
string 3 040C -> 0001

story Commands to the firmware
keyboard normal
command 1 3B -> 3 003A
command 1 E05B -> 3 00E3
command 1 0 -> 3 0000
command 2 3B -> 1 0000
command 0 0 -> 1 0000
refused command 1 7777 ->

story A keyboard that comes back is another one
keyboard normal
keyboard normal
keyboards 1 0
on 0
pull
keyboards 1
refused setled 01 ->
replug
keyboards 2 1
setled 01 -> 04
on 1
unplug
keyboards 2
quiet

# Keys go on while the keyboard is slow to answer a request.
story Typing during requests
keyboard normal
hotkey 7 ctrl 3B swallow
answers late 40ms
write eeprom 0 05
report 01 00 3A 00 00 00 00 00 -> 00 00 00 00 00 00 00 00 | down 7
read eeprom 0 1 -> 05
report 01 00 00 00 00 00 00 00 -> 01 00 00 00 00 00 00 00 | up 7
setled 04 -> 02
quiet
