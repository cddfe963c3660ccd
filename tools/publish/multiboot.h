#pragma once
// What the boot loader needs from a tavi kernel image. Limine starts tavi's kernel with the
// multiboot1 protocol: the image must carry a multiboot1 header (the magic 0x1BADB002 at an
// offset that is a multiple of 4, its three words within the first 8192 bytes, the
// checksum making magic + flags + checksum 0 modulo 2^32), and on UEFI, where there is no
// text mode, the header must ask for a video mode (flags bit 2), or Limine stops with
// "PANIC: multiboot1: Cannot use text mode with UEFI." and starts nothing.
#include <cstdint>
#include <string>

#include "util.h"

namespace publish {

// Why Limine on UEFI would not start this image; empty when it would.
std::string multiboot1_problem(const Bytes& image);

// A stand-in image for the simulator: `first_line` (ending in LF), then filler bytes (byte
// i of the image is i mod 251) of `size` bytes in all, with a multiboot1 header that asks
// for a framebuffer at the first offset after the line that is a multiple of 4.
Bytes stand_in_image(const std::string& first_line, std::uint64_t size);
// The smallest size a stand-in image with this first line can have.
std::uint64_t stand_in_minimum(const std::string& first_line);

}  // namespace publish
