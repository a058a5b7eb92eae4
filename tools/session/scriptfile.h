// scriptfile.h - writes a script as an input that is read back as the same script.
//
// A capture becomes a pcap of usbmon records that holds its keyboards and nothing else: each a device of its own, in
// their order, with the requests and reports that concern it. A recording becomes a recording, without descriptors.
#pragma once

#include "tools/common/files.h"
#include "tools/replay/script.h"

class ScriptFile
{
public:
    // Both are used as long as this lives; the file is finished by the caller. Fails (InputError): cannot be written.
    ScriptFile(OutputFile& file, const Script& script);
    void Add(const ScriptStep& step);

private:
    void AddRecorded(const ScriptStep& step);
    void AddCaptured(const ScriptStep& step);
    struct UsbmonRecord RecordOf(unsigned uKeyboard, uint64_t ullUs) const;
    void Read(unsigned uKeyboard, uint64_t ullUs, uint32_t ulBytes);
    void Put(const UsbmonRecord& record);

    OutputFile& m_file;
    const Script& m_script;
    std::vector<bool> m_reported; // by keyboard
    uint64_t m_ullTransfer = 0;
    unsigned m_uDevice = ~0u; // of a recording: the one that the lines are about
};
