// inputfile.h - the bytes of an input, wherever they come from: a file, a compressed one, a pipe, "-".
//
// An input is read more than once (to learn which keyboards there are, then to play them), so what comes through
// a pipe is put aside, in a file without a name, as it comes. Memory does not grow with the input.
#pragma once

#include "packet.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

class InputFile
{
public:
    // "-" is the standard input. Fails (InputError): cannot be read.
    explicit InputFile(const std::string& file);
    ~InputFile();
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;

    // A pipe is read until it rests or half a second has passed: what is written at once is there as a whole. Fails
    // (InputError): cannot be read.
    void Gather();
    // True while more may come through the pipe.
    bool IsOpen() const { return m_iPipe >= 0; }
    bool IsPipe() const { return m_iAside >= 0; }
    // Waits for more of a pipe. False at its end. Fails (InputError): cannot be read.
    bool TakeMore();

    const std::string& Name() const { return m_file; }
    int Open() const; // a descriptor at the file's start, for the caller to close
    uint64_t Bytes() const { return m_ullBytes; }

private:
    bool Comes(int iMs) const;

    std::string m_file;
    int m_iPipe = -1, m_iAside = -1; // a pipe until its end, and what came through it
    uint64_t m_ullBytes = 0;
};

using SharedInput = std::shared_ptr<InputFile>;

// How far an input is read: what is there now; to the end of a pipe; beyond the end, until StopFollowing() is called.
enum class Reading { Present, Whole, Following };

// Reads an input from its start, unpacked when it is compressed.
class InputReader
{
public:
    explicit InputReader(SharedInput pInput, Reading reading = Reading::Whole);
    ~InputReader();
    InputReader(const InputReader&) = delete;
    InputReader& operator=(const InputReader&) = delete;

    // Up to cBytes; fewer only at the end. Fails (InputError): cannot be read, compressed data cut or broken.
    size_t Read(uint8_t* pBytes, size_t cBytes);
    // What there is of them, at least one, and more only at the end.
    size_t ReadSome(uint8_t* pBytes, size_t cBytes);
    // So many bytes, where they lie, until the next call; null: Read() brings them.
    const uint8_t* Look(size_t cBytes) const
    {
        return m_held.size() - m_cTaken >= cBytes ? m_held.data() + m_cTaken : nullptr;
    }
    void Pass(size_t cBytes) // that were looked at
    {
        m_cTaken += cBytes;
        m_ullAt += cBytes;
    }
    uint64_t At() const { return m_ullAt; } // bytes that were read
    const InputFile& Input() const { return *m_pInput; }

private:
    void Open();
    size_t ReadAtLeast(uint8_t* pBytes, size_t cBytes, size_t cLeast);
    bool Hold();
    size_t TakeHeld(uint8_t* pBytes, size_t cBytes);

    SharedInput m_pInput;
    struct Unpacker;
    std::unique_ptr<Unpacker> m_pUnpacker;
    Reading m_reading;
    unsigned m_uCopies = 0;
    std::vector<uint8_t> m_held; // read ahead, and taken up to m_cTaken
    size_t m_cTaken = 0;
    uint64_t m_ullAt = 0;
};

void StopFollowing();
bool WaitToFollow(); // a moment; false when it was stopped
// Called before more is waited for, so that what was told can be seen.
void SetBeforeWait(std::function<void()> before);
