#include "multiboot.h"

#include <cstdio>

namespace publish {

namespace {

// Where the stand-in asks to be loaded (1 MiB, the usual multiboot1 load address) and the
// framebuffer it asks for.
constexpr std::uint32_t kLoadAddress = 0x100000;
constexpr std::uint32_t kWidth = 1024;
constexpr std::uint32_t kHeight = 768;
constexpr std::uint32_t kDepth = 32;

std::uint32_t le32(const Bytes& b, std::size_t at) {
  return static_cast<std::uint32_t>(b[at]) | static_cast<std::uint32_t>(b[at + 1]) << 8 |
         static_cast<std::uint32_t>(b[at + 2]) << 16 | static_cast<std::uint32_t>(b[at + 3]) << 24;
}

std::string hex32(std::uint32_t v) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "0x%08x", v);
  return buf;
}

std::size_t header_offset(const std::string& first_line) { return (first_line.size() + 3) / 4 * 4; }

}  // namespace

std::string multiboot1_problem(const Bytes& image) {
  if (image.size() < 12) {
    return "it is " + std::to_string(image.size()) +
           " bytes, too short for a multiboot1 header (Limine: \"Kernel file too small to contain header\")";
  }
  std::size_t limit = image.size() < kMultiboot1SearchBytes ? image.size() : kMultiboot1SearchBytes;
  for (std::size_t at = 0; at + 12 <= limit; at += 4) {
    if (le32(image, at) != kMultiboot1Magic) continue;
    // The first magic is the header; the boot loader does not look further.
    std::uint32_t flags = le32(image, at + 4);
    std::uint32_t sum = kMultiboot1Magic + flags + le32(image, at + 8);
    if (sum != 0) {
      return "its multiboot1 header at offset " + std::to_string(at) +
             " has a bad checksum (magic + flags + checksum is " + hex32(sum) + ", not 0)";
    }
    if (!(flags & kMultiboot1VideoFlag)) {
      return "its multiboot1 header at offset " + std::to_string(at) + " asks for text mode only (flags " +
             hex32(flags) + ", bit 2 not set), and Limine on UEFI stops with \"PANIC: multiboot1: Cannot use text mode "
             "with UEFI.\"";
    }
    return "";
  }
  return "it has no multiboot1 header (the magic 0x1BADB002 at a 4-byte aligned offset within its first 8192 bytes)";
}

std::uint64_t stand_in_minimum(const std::string& first_line) {
  return header_offset(first_line) + kMultiboot1HeaderBytes;
}

Bytes stand_in_image(const std::string& first_line, std::uint64_t size) {
  Bytes image = as_bytes(first_line);
  image.reserve(size);
  for (std::uint64_t i = image.size(); i < size; ++i) image.push_back(static_cast<std::uint8_t>(i % 251));
  std::size_t at = header_offset(first_line);
  // The image is no ELF file, so the header gives its load addresses (flag 16): the file is
  // loaded whole at 1 MiB and entered right after the header.
  std::uint32_t flags = kMultiboot1VideoFlag | kMultiboot1AddressFlag;
  std::uint32_t words[] = {kMultiboot1Magic,
                           flags,
                           0u - kMultiboot1Magic - flags,
                           kLoadAddress + static_cast<std::uint32_t>(at),  // header_addr
                           kLoadAddress,                                   // load_addr
                           0,                                              // load_end_addr: the whole file
                           0,                                              // bss_end_addr: none
                           kLoadAddress + static_cast<std::uint32_t>(at + kMultiboot1HeaderBytes),  // entry_addr
                           0,  // mode_type: a linear framebuffer
                           kWidth,
                           kHeight,
                           kDepth};
  for (std::size_t i = 0; i < sizeof words / sizeof words[0]; ++i) {
    for (std::size_t k = 0; k < 4; ++k) image[at + 4 * i + k] = static_cast<std::uint8_t>(words[i] >> (8 * k));
  }
  return image;
}

}  // namespace publish
