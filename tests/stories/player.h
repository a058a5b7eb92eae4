// player.h - plays a story: the keyboard, the system and the application in one thread.
//
// The system reads by itself, as a real one does, so a read that the driver answers on its own is received
// without a report; each such read must be told by an `answer` line before the next deed. Each verb is a
// routine of the files verbs_*.cpp; the table in player.cpp names them all.
#pragma once

#include <gtest/gtest.h>

#include <deque>
#include <map>
#include <memory>

#include "emu/app/application.h"
#include "emu/app/machine.h"
#include "tests/macro_file.h"
#include "words.h"

class Player
{
public:
    explicit Player(bool b32) : m_b32(b32) {} // the application's process
    void Play(const std::string& line);
    void Finish();
    // logs.cpp: the driver's log, from the start on
    void LogTo(unsigned uLevel);
    std::string TakeLog();

private:
    typedef void Verb(const Words& words, const Parts& parts);
    struct VerbRow;
    static const VerbRow Verbs[];

    // verbs_keyboard.cpp: the keyboard and the system
    Verb Setting, Keyboard, Replug, On, Report, Answer, Led, Wait, Unplug, Quiet;
    // verbs_hotkeys.cpp: definitions
    Verb Hotkey, Define, Remove;
    // verbs_requests.cpp: the application's other requests
    Verb Processing, Scans, Packet, ExpectModifiers, Refused;
    // verbs_device.cpp: requests that are passed to the keyboard
    Verb SetLed, ExpectLeds, Read, Write, Size, String, Descriptor, Command, ListKeyboards, Answers;
    // verbs_macro.cpp: the macro mode
    Verb Macro, MacroFile, Reread, Capture, ClassLed, Shows;
    // verbs_siblings.cpp: other drivers
    Verb Class, Typematic, SetTypematic, Mouse;

    void PlayVerb(const Words& words, const Parts& parts);
    void ExpectStatus(NTSTATUS status); // success, or what `refused` makes of it
    // A request about the current keyboard; what it reports.
    EmuBytes Ask(ULONG ulCode, const EmuBytes& payload, ULONG ulOut);
    void StartMachine();
    void ChangeSetting(const std::string& name, const std::string& value);
    void WriteMacroFile();
    void PlugInterface(const EmuDescriptors& descriptors, EmuPlugOptions options);
    void ExpectReceived(const std::string& expected);
    void ExpectNothingReceived();
    void ExpectEvents(const std::string& expected);
    EmuKeyboard& Current() const { return *m_Keyboards.at(m_Current); }
    ULONG Index() const { return Current().Index(); }

    static constexpr const char* LOG_FILE = "tv.log";
    std::unique_ptr<DriveFolder> m_Drive; // holds the macro file and the log, when there is one
    size_t m_LogTaken = 0;                // bytes of the log
    FileBytes m_MacroFile;
    EmuMachineOptions m_Options;
    std::unique_ptr<EmuMachine> m_Machine;
    std::unique_ptr<EmuApplication> m_Application;
    std::vector<EmuKeyboard*> m_Keyboards;
    std::vector<std::unique_ptr<std::deque<EmuBytes>>> m_Received; // by keyboard
    std::vector<std::unique_ptr<EmuBytes>> m_Leds;                 // by keyboard: what reached it
    std::vector<const EmuDescriptors*> m_Kinds;                    // by keyboard
    std::vector<ULONG> m_Reads;                                    // by keyboard: how many it is read by
    size_t m_Current = 0;
    std::map<ULONG, EmuClassDevice*> m_ClassDevices; // by number
    std::map<std::string, EmuSibling*> m_Mice;       // "ps2", "usb"
    const bool m_b32;
    bool m_bRefused = false; // inside a `refused` line
    ULONG m_ulLineBegan = 0; // the time before the line at hand, in the unit of events
};
