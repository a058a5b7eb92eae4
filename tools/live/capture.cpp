// capture.cpp - writes the capture of both sides while they happen.
#include "told.h"

#include "tools/common/failure.h"
#include "tools/session/pcapng.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace
{

int OpenFor(const std::string& file)
{
    const int iFile =
        file == "-" ? dup(STDOUT_FILENO) : open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (iFile < 0)
        throw InputError(fmt::format("{}: cannot be written: {}", file, strerror(errno)));
    return iFile;
}

class LiveCapture
{
public:
    explicit LiveCapture(const std::string& file) : m_file(file), m_iFile(OpenFor(file)) {}
    ~LiveCapture() { close(m_iFile); }
    LiveCapture(const LiveCapture&) = delete;
    LiveCapture& operator=(const LiveCapture&) = delete;

    ReplayPrinter* Printer() { return m_printer.get(); }

private:
    // A block that does not fit is taken back, where that can be done.
    void Put(const Bytes& block)
    {
        for (size_t done = 0; !m_bOver && done < block.size();) {
            const ssize_t now = write(m_iFile, block.data() + done, block.size() - done);
            if (now >= 0) {
                done += static_cast<size_t>(now);
                continue;
            }
            if (errno == EINTR)
                continue;
            fmt::print(stderr, "tvusb: {}: {}; the capture ends here, the keyboard goes on\n", m_file,
                       strerror(errno));
            m_bOver = true;
            (void)!ftruncate(m_iFile, m_lWhole);
        }
        m_lWhole += static_cast<off_t>(block.size());
    }

    const std::string m_file;
    const int m_iFile;
    off_t m_lWhole = std::max<off_t>(lseek(m_iFile, 0, SEEK_CUR), 0); // where the whole blocks end
    bool m_bOver = false;
    Session m_session;
    PcapngWriter m_writer{m_session, [this](const Bytes& block) { Put(block); }};
    std::unique_ptr<ReplayPrinter> m_printer = MakeCollector(m_session, [this](SessionLine&& line) {
        m_writer.Add(line);
        m_writer.Flush();
    });
};

} // namespace

std::shared_ptr<ReplayPrinter> OpenLiveCapture(const std::string& file)
{
    auto capture = std::make_shared<LiveCapture>(file);
    return {capture, capture->Printer()};
}
