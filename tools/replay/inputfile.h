// inputfile.h - the bytes of an input, wherever they come from: a file, a compressed one, a pipe, "-".
//
// An input is read more than once (to learn which keyboards there are, then to play them), so what comes through
// a pipe is first put aside in a file without a name. Memory does not grow with the input.
#pragma once

#include "packet.h"

#include <memory>
#include <string>

class InputFile
{
public:
    // "-" is the standard input. Fails (InputError): cannot be read.
    explicit InputFile(const std::string& file);
    ~InputFile();
    InputFile(const InputFile&) = delete;
    InputFile& operator=(const InputFile&) = delete;

    const std::string& Name() const { return m_file; }
    int Open() const; // a descriptor at the file's start, for the caller to close
    uint64_t Bytes() const { return m_ullBytes; }

private:
    std::string m_file;
    int m_iAside = -1; // what came through a pipe
    uint64_t m_ullBytes = 0;
};

using SharedInput = std::shared_ptr<const InputFile>;

// Reads an input from its start, unpacked when it is compressed.
class InputReader
{
public:
    // With bGrows, the end of the file is waited beyond until StopFollowing() is called.
    explicit InputReader(SharedInput pInput, bool bGrows = false);
    ~InputReader();
    InputReader(const InputReader&) = delete;
    InputReader& operator=(const InputReader&) = delete;

    // Up to cBytes; fewer only at the end. Fails (InputError): cannot be read, compressed data cut or broken.
    size_t Read(uint8_t* pBytes, size_t cBytes);
    uint64_t At() const { return m_ullAt; } // bytes that were read
    uint64_t PackedAt() const;              // of the file itself
    const InputFile& Input() const { return *m_pInput; }

private:
    SharedInput m_pInput;
    struct Unpacker;
    std::unique_ptr<Unpacker> m_pUnpacker;
    bool m_bGrows;
    uint64_t m_ullAt = 0;
};

void StopFollowing();
