// eeprom_backup.cpp - saves the keyboard's EEPROM to a file, or writes a file back; both are verified by
// reading again.
//
//     eeprom_backup save FILE [KEYBOARD]
//     eeprom_backup restore FILE [KEYBOARD]
//
// Of several keyboards KEYBOARD is the index: none is taken by chance.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <fstream>
#include <iterator>

#include "client/client.h"

using Memory = std::vector<uint8_t>;

static int Fail(const std::string& why)
{
    fprintf(stderr, "eeprom_backup: %s\n", why.c_str());
    return 1;
}

// A read begins in the first 256 bytes, so all of it comes in one.
static tvusb::Result<Memory> ReadAll(const tvusb::Keyboard& keyboard, uint32_t ulSize)
{
    return keyboard.ReadEeprom(0, static_cast<uint16_t>(ulSize));
}

// Writes in small pieces, as the firmware's buffer is small.
static tvusb::Status WriteAll(const tvusb::Keyboard& keyboard, const Memory& memory)
{
    constexpr size_t PIECE = 32;
    for (size_t at = 0; at < memory.size(); at += PIECE) {
        Memory piece(memory.begin() + at, memory.begin() + std::min(at + PIECE, memory.size()));
        tvusb::Status status = keyboard.WriteEeprom(static_cast<uint16_t>(at), piece);
        if (!status.Ok()) {
            return status;
        }
    }
    return tvusb::Status::Success;
}

static int Save(const tvusb::Keyboard& keyboard, uint32_t ulSize, const char* pFile)
{
    auto memory = ReadAll(keyboard, ulSize);
    auto again = ReadAll(keyboard, ulSize);
    if (!memory || !again) {
        return Fail((memory ? again : memory).Error().Text());
    }
    if (*memory != *again) {
        return Fail("two reads differ, nothing was saved");
    }
    std::ofstream file(pFile, std::ios::binary);
    file.write(reinterpret_cast<const char*>(memory->data()), static_cast<std::streamsize>(memory->size()));
    file.close();
    if (!file) {
        return Fail(std::string("cannot write ") + pFile);
    }
    printf("saved %zu bytes, read twice\n", memory->size());
    return 0;
}

static int Restore(const tvusb::Keyboard& keyboard, uint32_t ulSize, const char* pFile)
{
    std::ifstream file(pFile, std::ios::binary);
    Memory memory((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    if (!file || memory.size() != ulSize) {
        return Fail(std::string(pFile) + " is no backup of this keyboard's " + std::to_string(ulSize) +
                    " bytes");
    }
    tvusb::Status status = WriteAll(keyboard, memory);
    if (!status.Ok()) {
        return Fail(status.Text());
    }
    auto again = ReadAll(keyboard, ulSize);
    if (!again) {
        return Fail(again.Error().Text());
    }
    size_t at =
        std::mismatch(memory.begin(), memory.end(), again->begin(), again->end()).first - memory.begin();
    if (at != memory.size()) {
        return Fail("byte " + std::to_string(at) + " was not kept");
    }
    printf("restored %zu bytes, read back\n", memory.size());
    return 0;
}

int main(int argc, char** argv)
{
    if (argc < 3 || argc > 4 || (strcmp(argv[1], "save") != 0 && strcmp(argv[1], "restore") != 0)) {
        return Fail("say save FILE or restore FILE, and of several keyboards its index");
    }
    tvusb::Driver driver;
    tvusb::Status status = driver.Open();
    if (!status.Ok()) {
        return Fail(status.Text());
    }
    auto keyboard = argc > 3 ? driver.FindByIndex(strtoul(argv[3], nullptr, 10)) : driver.FindOnly();
    if (!keyboard) {
        return Fail(keyboard.Error().Text());
    }
    auto size = keyboard->GetEepromSize();
    if (!size) {
        return Fail(size.Error().Text());
    }
    if (*size == 0) {
        return Fail("this keyboard has no EEPROM");
    }
    return strcmp(argv[1], "save") == 0 ? Save(*keyboard, *size, argv[2])
                                        : Restore(*keyboard, *size, argv[2]);
}
