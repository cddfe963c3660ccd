#pragma once

// What both host programs know of a tavi kernel image: how the boot loader finds its
// multiboot1 header, and how a stand-in image (the publisher writes them, the simulator
// boots them) is laid out. Header-only, so that the simulator and the publisher read and
// write the same bytes by construction.
//
// A stand-in image is its first line
//   TAVI-KERNEL build=<build> commit=<commit> health=good|broken
// then, at the next offset that is a multiple of 4, a multiboot1 header asking for a
// framebuffer, and filler bytes around it, byte i of the file being i mod 251.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace kernel_image {

// The boot loader takes the first occurrence of the magic at an offset that is a multiple
// of 4, with the three words (magic, flags, checksum) within the first 8192 bytes.
constexpr std::uint32_t kMultiboot1Magic = 0x1BADB002;
constexpr std::size_t kMultiboot1SearchBytes = 8192;
constexpr std::size_t kMultiboot1WordsBytes = 12;              // magic, flags, checksum
constexpr std::uint32_t kMultiboot1VideoFlag = 1u << 2;       // asks for a video mode (a framebuffer)
constexpr std::uint32_t kMultiboot1AddressFlag = 1u << 16;    // the load address fields are valid
constexpr std::size_t kMultiboot1HeaderBytes = 48;            // up to and with the video mode fields

// Where a stand-in asks to be loaded (1 MiB, the usual multiboot1 load address) and the
// framebuffer it asks for.
constexpr std::uint32_t kStandInLoadAddress = 0x100000;
constexpr std::uint32_t kStandInWidth = 1024;
constexpr std::uint32_t kStandInHeight = 768;
constexpr std::uint32_t kStandInDepth = 32;

// The little-endian word at `at` of a byte container (std::string, std::string_view,
// std::vector<std::uint8_t>); the caller makes sure four bytes are there.
template <class Image>
std::uint32_t le32(const Image& image, std::size_t at) {
  std::uint32_t v = 0;
  for (std::size_t i = 4; i-- > 0;) v = (v << 8) | static_cast<unsigned char>(image[at + i]);
  return v;
}

struct Multiboot1Header {
  bool found = false;
  std::size_t offset = 0;
  std::uint32_t flags = 0;
  std::uint32_t checksum = 0;
  bool checksum_ok = false;  // magic + flags + checksum == 0 (mod 2^32)
};

template <class Image>
Multiboot1Header find_multiboot1_header(const Image& image) {
  Multiboot1Header h;
  std::size_t limit = image.size() < kMultiboot1SearchBytes ? image.size() : kMultiboot1SearchBytes;
  for (std::size_t at = 0; at + kMultiboot1WordsBytes <= limit; at += 4) {
    if (le32(image, at) != kMultiboot1Magic) continue;
    // The first magic is the header; the boot loader does not look further.
    h.found = true;
    h.offset = at;
    h.flags = le32(image, at + 4);
    h.checksum = le32(image, at + 8);
    h.checksum_ok = static_cast<std::uint32_t>(kMultiboot1Magic + h.flags + h.checksum) == 0;
    return h;
  }
  return h;
}

// The first line of a stand-in image, with its LF.
inline std::string stand_in_first_line(std::uint64_t build, std::string_view commit, bool healthy) {
  std::string line = "TAVI-KERNEL build=" + std::to_string(build) + " commit=";
  line += commit;
  line += healthy ? " health=good\n" : " health=broken\n";
  return line;
}

// Where a stand-in's multiboot1 header starts after a first line of this many bytes.
constexpr std::size_t stand_in_header_offset(std::size_t first_line_bytes) { return (first_line_bytes + 3) / 4 * 4; }

// Writes a stand-in's multiboot1 header at `at`; the image holds at least
// at + kMultiboot1HeaderBytes bytes.
template <class Image>
void put_stand_in_header(Image& image, std::size_t at) {
  // The image is no ELF file, so the header gives its load addresses (flag 16): the file is
  // loaded whole at 1 MiB and entered right after the header.
  std::uint32_t flags = kMultiboot1VideoFlag | kMultiboot1AddressFlag;
  std::uint32_t words[] = {kMultiboot1Magic,
                           flags,
                           static_cast<std::uint32_t>(0u - kMultiboot1Magic - flags),
                           kStandInLoadAddress + static_cast<std::uint32_t>(at),  // header_addr
                           kStandInLoadAddress,                                   // load_addr
                           0,  // load_end_addr: the whole file
                           0,  // bss_end_addr: none
                           kStandInLoadAddress + static_cast<std::uint32_t>(at + kMultiboot1HeaderBytes),  // entry_addr
                           0,  // mode_type: a linear framebuffer
                           kStandInWidth,
                           kStandInHeight,
                           kStandInDepth};
  static_assert(sizeof words == kMultiboot1HeaderBytes);
  using Byte = typename Image::value_type;
  for (std::size_t i = 0; i < sizeof words / sizeof words[0]; i++)
    for (std::size_t k = 0; k < 4; k++) image[at + 4 * i + k] = static_cast<Byte>((words[i] >> (8 * k)) & 0xff);
}

}  // namespace kernel_image
