// DIAG data for people: hexadecimal, sizes, one-line descriptions of packets.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// Reads text such as "73 00 1D" or "73001d" (blanks only between bytes) into *bytes. Returns an
// empty string, or what is wrong.
std::string ParseHex(std::string_view text, std::string* bytes);

// Reads a byte count such as "20000000", "300M" or "1G" (K, M, G: decimal multiples) into *bytes.
// Returns an empty string, or what is wrong; 0 is refused.
std::string ParseSize(std::string_view text, uint64_t* bytes);

// "73 00 1D ...": at most limit bytes, dots when there are more.
std::string FormatHex(std::string_view bytes, size_t limit);

// "1 byte", "2 bytes".
std::string Counted(uint64_t count, std::string_view what);

// "log configuration (0x73), 12 bytes: 73 00 ...", cut at 64 bytes. note, unless empty, stands
// behind the length.
std::string DescribePacket(std::string_view packet, std::string_view note = {});
