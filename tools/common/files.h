// files.h - whole files in, whole files out.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// Fails (InputError): cannot be read.
std::vector<uint8_t> ReadWholeFile(const std::string& file);
std::string ReadWholeText(const std::string& file);

// A file that is written aside and put in its place when it is complete, so that there is never half a file. What
// is there and no ordinary file (a terminal, a pipe) gets it all at the end.
// Every call fails (InputError) when it cannot be written; what was there before is still there.
class OutputFile
{
public:
    explicit OutputFile(const std::string& file);
    ~OutputFile(); // what is not finished goes
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;

    void Write(const std::vector<uint8_t>& bytes);
    void Write(std::string_view text);
    void Flush();  // all of it can be read at Aside()
    void Finish(); // the last call
    const std::string& Aside() const { return m_aside; }

private:
    std::string m_file, m_target, m_aside;
    bool m_bOrdinary = true;
    int m_iFile = -1;
    std::vector<uint8_t> m_buffer;
};

void WriteWholeFile(const std::string& file, const std::vector<uint8_t>& content);

// A file of its own in the system's folder for such, which goes with the object.
class TemporaryFile
{
public:
    // Fails (InputError): cannot be written.
    explicit TemporaryFile(const std::vector<uint8_t>& content);
    ~TemporaryFile();
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    const std::string& Path() const { return m_path; }

private:
    std::string m_path;
};

// The name by which the driver opens a file of the host whose full path this is.
std::string DriverFileName(const std::string& path);
