// image.h - a memory's content in a file: Intel HEX or the bytes alone.
//
// Intel HEX says where its bytes lie and may leave holes; a binary file begins where the user says. A name that ends
// in .hex, .ihex or .ihx means Intel HEX.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

using Image = std::map<uint32_t, uint8_t>; // by address

bool IsHexName(const std::string& file);

// Fails (InputError), with the line: no record, a wrong checksum or length, no end, an address told twice or above
// 65535.
Image ReadHex(const std::string& file, std::string_view text);
// Whichever the name says; ulAt is where a binary file's bytes lie. Fails (InputError).
Image ReadImage(const std::string& file, uint32_t ulAt);

std::string HexText(const Image& image);
// The bytes as the file with this name has them. A binary has no holes.
std::vector<uint8_t> ContentFor(const std::string& file, const Image& image);

Image ImageOf(const std::vector<uint8_t>& bytes, uint32_t ulAt);
