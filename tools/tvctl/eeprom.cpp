// eeprom.cpp - tvctl eeprom size, dump, verify, write.
//
//   write:  read twice ─► back up ─► write the pieces that change ─► read twice ─► compare
//
// A read can begin in the first 256 bytes only, so all of it is read at once. Nothing is written before the backup
// lies on the disk, and what cannot be verified is said together with the way back.
#include "image.h"
#include "tools/common/failure.h"
#include "tools/common/files.h"
#include "tools/common/text.h"
#include "tvctl.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>

namespace
{

using Memory = std::vector<uint8_t>;

constexpr size_t PieceBytes = 32;         // the firmware's buffer is small
constexpr uint32_t ReadableAddress = 256; // below it a read can begin, and every keyboard takes it in a write

// Fails (Failure): the keyboard has none.
uint32_t SizeOf(const tvusb::Keyboard& keyboard)
{
    uint32_t ulSize = Must(keyboard.GetEepromSize());
    if (ulSize == 0)
        throw Failure(Refused, fmt::format("keyboard {} has no EEPROM", keyboard.Index()));
    return ulSize;
}

Memory ReadOnce(const tvusb::Keyboard& keyboard, uint32_t ulSize)
{
    return Must(keyboard.ReadEeprom(0, static_cast<uint16_t>(ulSize)));
}

// Fails (Failure): two reads differ.
Memory ReadTwice(const tvusb::Keyboard& keyboard, uint32_t ulSize)
{
    Memory memory = ReadOnce(keyboard, ulSize);
    if (memory != ReadOnce(keyboard, ulSize))
        throw Failure(Refused, "two reads of the EEPROM differ");
    return memory;
}

std::string Rows(const Memory& bytes, uint32_t ulAt)
{
    std::string text;
    for (size_t i = 0; i < bytes.size(); i += 16) {
        auto end = bytes.begin() + static_cast<ptrdiff_t>(std::min(i + 16, bytes.size()));
        Memory row(bytes.begin() + static_cast<ptrdiff_t>(i), end);
        std::string shown;
        for (uint8_t ucByte : row)
            shown += ucByte >= ' ' && ucByte <= '~' ? static_cast<char>(ucByte) : '.';
        text +=
            fmt::format("{}{:04x}  {:<47}  {}", text.empty() ? "" : "\n", ulAt + i, HexOf(row, " "), shown);
    }
    return text;
}

// The bytes of the file that the memory does not hold.
Image Differences(const Image& image, const Memory& memory)
{
    Image different;
    for (const auto& [ulAddress, ucByte] : image)
        if (memory[ulAddress] != ucByte)
            different.emplace(ulAddress, ucByte);
    return different;
}

void TellDifferences(const Session& session, const Image& different, const Memory& memory)
{
    for (const auto& [ulAddress, ucByte] : different)
        session.Tell(Line("difference")
                         .Number("address", ulAddress)
                         .Number("keyboard", memory[ulAddress])
                         .Number("file", ucByte),
                     fmt::format("0x{:04X}: the keyboard has {:02x}, the file {:02x}", ulAddress,
                                 memory[ulAddress], ucByte));
}

struct EepromArguments {
    std::string file, backup;
    uint32_t ulAt = 0;
    int iLength = -1; // -1: to the end
    bool bAt = false, bNoBackup = false, bDryRun = false;
};

// Fails (InputError): the file has nothing, or more than the EEPROM, or is a binary of another size without a place.
Image ReadFile(const EepromArguments& arguments)
{
    if (arguments.bAt && IsHexName(arguments.file))
        throw InputError(
            fmt::format("{}: says itself where its bytes lie, so --at is none of its", arguments.file));
    Image image = ReadImage(arguments.file, arguments.ulAt);
    if (image.empty())
        throw InputError(fmt::format("{}: holds no bytes", arguments.file));
    return image;
}

void MustFit(const Image& image, uint32_t ulSize, const EepromArguments& arguments)
{
    if (image.rbegin()->first >= ulSize)
        throw InputError(fmt::format("{}: address 0x{:X} is not in this keyboard's EEPROM of {} bytes",
                                     arguments.file, image.rbegin()->first, ulSize));
    if (!IsHexName(arguments.file) && !arguments.bAt && image.size() != ulSize)
        throw InputError(
            fmt::format("{}: {} bytes are not all of this keyboard's {}; say where they lie with --at",
                        arguments.file, image.size(), ulSize));
}

ExitStatus Size(Session& session)
{
    tvusb::Keyboard keyboard = session.Keyboard();
    uint32_t ulSize = Must(keyboard.GetEepromSize());
    session.Tell(Line("eeprom").Number("index", keyboard.Index()).Number("size", ulSize),
                 fmt::format("{}", ulSize));
    return Done;
}

ExitStatus Dump(Session& session, const EepromArguments& arguments)
{
    tvusb::Keyboard keyboard = session.Keyboard();
    const uint32_t ulSize = SizeOf(keyboard);
    const uint32_t ulRest = ulSize - std::min(arguments.ulAt, ulSize);
    const uint32_t ulLength = arguments.iLength < 0 ? ulRest : static_cast<uint32_t>(arguments.iLength);
    if (ulRest == 0 || ulLength == 0 || ulLength > ulRest)
        throw InputError(fmt::format("{} bytes at 0x{:X} are not in this keyboard's EEPROM of {} bytes",
                                     ulLength, arguments.ulAt, ulSize));
    Memory memory = ReadTwice(keyboard, ulSize);
    auto begin = memory.begin() + arguments.ulAt;
    Memory bytes(begin, begin + ulLength);
    Line line("eeprom");
    line.Number("index", keyboard.Index()).Number("size", ulSize).Number("at", arguments.ulAt);
    if (arguments.file.empty()) {
        session.Tell(line.Hex("bytes", bytes), Rows(bytes, arguments.ulAt));
        return Done;
    }
    WriteWholeFile(arguments.file, ContentFor(arguments.file, ImageOf(bytes, arguments.ulAt)));
    session.Tell(line.Text("file", arguments.file).Number("written", ulLength),
                 fmt::format("{}: {} bytes, read twice", arguments.file, ulLength));
    return Done;
}

ExitStatus Verify(Session& session, const EepromArguments& arguments)
{
    Image image = ReadFile(arguments);
    tvusb::Keyboard keyboard = session.Keyboard();
    const uint32_t ulSize = SizeOf(keyboard);
    MustFit(image, ulSize, arguments);
    Memory memory = ReadTwice(keyboard, ulSize);
    Image different = Differences(image, memory);
    TellDifferences(session, different, memory);
    session.Tell(
        Line("verified")
            .Number("index", keyboard.Index())
            .Number("bytes", image.size())
            .Number("different", different.size()),
        fmt::format("keyboard {}: {} of {} bytes differ", keyboard.Index(), different.size(), image.size()));
    return different.empty() ? Done : NotVerified;
}

// "eeprom-7a3c-0101-00-1.hex" with the first number that no file has.
std::string FreeName(const KeyboardFacts& facts)
{
    std::string name = facts.id.empty() ? "keyboard" : facts.id;
    name += facts.serial.empty() ? "" : ":" + facts.serial;
    for (char& c : name)
        if (!isalnum(static_cast<unsigned char>(c)))
            c = '-';
    for (unsigned u = 1;; u++) {
        std::string file = fmt::format("eeprom-{}-{}.hex", name, u);
        if (!std::filesystem::exists(file))
            return file;
    }
}

// Writes the pieces in which something changes. Above the first 256 bytes it is looked at once whether the keyboard
// takes such addresses: one that does not writes elsewhere.
// Fails (Failure): a piece is refused, or came to lie elsewhere.
void WritePieces(const tvusb::Keyboard& keyboard, const Memory& wanted, Memory memory)
{
    bool bTried = false;
    for (size_t cAt = 0; cAt < wanted.size(); cAt += PieceBytes) {
        auto begin = wanted.begin() + static_cast<ptrdiff_t>(cAt);
        Memory piece(begin,
                     wanted.begin() + static_cast<ptrdiff_t>(std::min(cAt + PieceBytes, wanted.size())));
        auto old = memory.begin() + static_cast<ptrdiff_t>(cAt);
        if (std::equal(piece.begin(), piece.end(), old))
            continue;
        Must(keyboard.WriteEeprom(static_cast<uint16_t>(cAt), piece));
        std::copy(piece.begin(), piece.end(), old);
        if (cAt < ReadableAddress || bTried)
            continue;
        bTried = true;
        if (ReadOnce(keyboard, static_cast<uint32_t>(wanted.size())) != memory)
            throw Failure(NotVerified, "the keyboard does not take addresses above 255");
    }
}

// Fails (Failure, NotVerified): with the way back in it.
void WriteAndVerify(const tvusb::Keyboard& keyboard, const Memory& wanted, const Memory& memory,
                    const std::string& restore)
{
    try {
        WritePieces(keyboard, wanted, memory);
        Memory again = ReadTwice(keyboard, static_cast<uint32_t>(wanted.size()));
        size_t cAt = static_cast<size_t>(std::mismatch(wanted.begin(), wanted.end(), again.begin()).first -
                                         wanted.begin());
        if (cAt != wanted.size())
            throw Failure(NotVerified, fmt::format("address 0x{:04X} should hold {:02x} and holds {:02x}",
                                                   cAt, wanted[cAt], again[cAt]));
    } catch (const Failure& failure) {
        throw Failure(
            NotVerified,
            fmt::format("the EEPROM may hold neither what was there nor what was to be written: {}; {}",
                        failure.what(), restore));
    }
}

ExitStatus Write(Session& session, const EepromArguments& arguments)
{
    Image image = ReadFile(arguments);
    KeyboardFacts facts = session.Chosen();
    const uint32_t ulSize = SizeOf(facts.keyboard);
    MustFit(image, ulSize, arguments);
    Memory memory = ReadTwice(facts.keyboard, ulSize);
    Image different = Differences(image, memory);
    Line line("written");
    line.Number("index", facts.keyboard.Index())
        .Number("bytes", image.size())
        .Number("changed", different.size());
    line.Truth("dry_run", arguments.bDryRun);
    if (arguments.bDryRun || different.empty()) {
        TellDifferences(session, different, memory);
        session.Tell(line, fmt::format("{} of {} bytes would change; nothing was written", different.size(),
                                       image.size()));
        return Done;
    }
    std::string backup = arguments.backup.empty() ? FreeName(facts) : arguments.backup;
    std::string restore = "there is no backup";
    if (!arguments.bNoBackup) {
        WriteWholeFile(backup, ContentFor(backup, ImageOf(memory, 0)));
        line.Text("backup", backup);
        restore = fmt::format("to restore: tvctl eeprom write {} --no-backup -k {}", backup,
                              facts.keyboard.Index());
    }
    Memory wanted = memory;
    for (const auto& [ulAddress, ucByte] : different)
        wanted[ulAddress] = ucByte;
    WriteAndVerify(facts.keyboard, wanted, memory, restore);
    session.Tell(line,
                 fmt::format("keyboard {}: {} bytes changed and read back{}", facts.keyboard.Index(),
                             different.size(), arguments.bNoBackup ? "" : "; what was there: " + backup));
    return Done;
}

} // namespace

void AddEepromVerbs(CLI::App& app, ControlVerbs& verbs)
{
    auto arguments = std::make_shared<EepromArguments>();
    CLI::App* pEeprom = app.add_subcommand("eeprom", "The keyboard's EEPROM: size, dump, verify, write");
    pEeprom->require_subcommand(1);
    auto at = [arguments](CLI::App* pVerb, const char* pWhat) {
        pVerb->add_option("--at", arguments->ulAt, pWhat)
            ->check(CLI::Range(0, 0xFFFF))
            ->each([arguments](const std::string&) { arguments->bAt = true; });
    };

    verbs.push_back({pEeprom->add_subcommand("size", "Tell its size in bytes"), Size});

    CLI::App* pDump = pEeprom->add_subcommand("dump", "Show it, or save it to a file");
    pDump->add_option("FILE", arguments->file, "Intel HEX when it ends in .hex, else the bytes alone");
    at(pDump, "the first address");
    pDump->add_option("--length", arguments->iLength, "how many bytes")->check(CLI::Range(1, 0xFFFF));
    verbs.push_back({pDump, [arguments](Session& session) { return Dump(session, *arguments); }});

    CLI::App* pVerify =
        pEeprom->add_subcommand("verify", "Compare it with a file; exit status 5 when it differs");
    pVerify->add_option("FILE", arguments->file, "Intel HEX (.hex) or binary")->required();
    at(pVerify, "where a binary file's bytes lie");
    verbs.push_back({pVerify, [arguments](Session& session) { return Verify(session, *arguments); }});

    CLI::App* pWrite =
        pEeprom->add_subcommand("write", "Write a file to it, with a backup, and read it back");
    pWrite->add_option("FILE", arguments->file, "Intel HEX (.hex) or binary")->required();
    at(pWrite, "where a binary file's bytes lie");
    CLI::Option* pBackup = pWrite->add_option(
        "--backup", arguments->backup, "where what was there is saved (default: a new eeprom-….hex here)");
    pWrite->add_flag("--no-backup", arguments->bNoBackup, "save nothing")->excludes(pBackup);
    pWrite->add_flag("--dry-run", arguments->bDryRun, "tell what would change, write nothing");
    verbs.push_back({pWrite, [arguments](Session& session) { return Write(session, *arguments); }});
}
