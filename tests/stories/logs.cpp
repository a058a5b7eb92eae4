// logs.cpp - stories whose log is told: a file of the folder logs/ holds a story's lines behind "> ", and below each
// the lines that it adds to the driver's log, with their level in front and without their time.
//
// Each is played at three log levels; what a level does not let pass must not be there.
#include <fstream>
#include <sstream>

#include "player.h"
#include "story.h"

namespace
{
enum { TIME_CHARS = 27 }; // "07/03/2014 09:41:05:123 -- "

// The lines of the log's text, without their times.
std::vector<std::string> LinesOf(const std::string& text)
{
    std::vector<std::string> lines;
    for (size_t from = 0; from < text.size();) {
        const size_t to = text.find("\r\n", from);
        EXPECT_NE(to, std::string::npos) << "a line has its end: " << text.substr(from);
        const std::string line = text.substr(from, to - from);
        EXPECT_TRUE(line.size() > TIME_CHARS && line.substr(TIME_CHARS - 4, 4) == " -- ") << line;
        lines.push_back(line.substr(std::min<size_t>(TIME_CHARS, line.size())));
        from = to + 2;
    }
    return lines;
}

std::string Joined(const std::vector<std::string>& lines)
{
    std::string text;
    for (const std::string& line : lines) {
        text += line + "\n";
    }
    return text;
}
} // namespace

// The text that the driver has logged since the last call.
std::string Player::TakeLog()
{
    std::ifstream file(m_Drive->Path() + "/" + LOG_FILE, std::ios::binary);
    std::ostringstream text;
    file.seekg(static_cast<std::streamoff>(m_LogTaken));
    text << file.rdbuf();
    m_LogTaken += text.str().size();
    return text.str();
}

void Player::LogTo(unsigned uLevel)
{
    m_Drive = std::make_unique<DriveFolder>();
    m_Options.FileRoot = m_Drive->Path();
    m_Options.Settings["LogFile"] = std::string("\\??\\C:\\") + LOG_FILE;
    m_Options.Settings["LogLevel"] = uLevel;
}

void PlayLog(const std::string& path, unsigned uLevel)
{
    std::ifstream file(path);
    ASSERT_TRUE(file) << path;
    Player player(false);
    player.LogTo(uLevel);
    std::string line, deed;
    std::vector<std::string> expected;
    unsigned uNumber = 0, uDeed = 0;
    const auto finish = [&] {
        SCOPED_TRACE(path.substr(path.rfind('/') + 1) + ":" + std::to_string(uDeed) + ": " + deed);
        if (!deed.empty()) {
            player.Play(deed);
            EXPECT_EQ(Joined(LinesOf(player.TakeLog())), Joined(expected));
        }
        expected.clear();
    };
    while (std::getline(file, line)) {
        uNumber++;
        if (line.rfind("> ", 0) == 0) {
            finish();
            deed = line.substr(2);
            uDeed = uNumber;
        } else if (!line.empty() && line[0] != '#' && static_cast<unsigned>(line[0] - '0') <= uLevel) {
            expected.push_back(line.substr(2));
        }
    }
    finish();
    player.Finish();
}
