#include "multiboot.h"

#include <cstdio>

#include "kernel_image.h"

namespace publish {

namespace {

std::string hex32(std::uint32_t v) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "0x%08x", v);
  return buf;
}

}  // namespace

std::string multiboot1_problem(const Bytes& image) {
  if (image.size() < kernel_image::kMultiboot1WordsBytes) {
    return "it is " + std::to_string(image.size()) +
           " bytes, too short for a multiboot1 header (Limine: \"Kernel file too small to contain header\")";
  }
  kernel_image::Multiboot1Header h = kernel_image::find_multiboot1_header(image);
  if (!h.found) {
    return "it has no multiboot1 header (the magic 0x1BADB002 at a 4-byte aligned offset within its first 8192 "
           "bytes)";
  }
  if (!h.checksum_ok) {
    std::uint32_t sum = kernel_image::kMultiboot1Magic + h.flags + h.checksum;
    return "its multiboot1 header at offset " + std::to_string(h.offset) +
           " has a bad checksum (magic + flags + checksum is " + hex32(sum) + ", not 0)";
  }
  if (!(h.flags & kernel_image::kMultiboot1VideoFlag)) {
    return "its multiboot1 header at offset " + std::to_string(h.offset) + " asks for text mode only (flags " +
           hex32(h.flags) + ", bit 2 not set), and Limine on UEFI stops with \"PANIC: multiboot1: Cannot use text "
           "mode with UEFI.\"";
  }
  return "";
}

std::uint64_t stand_in_minimum(const std::string& first_line) {
  return kernel_image::stand_in_header_offset(first_line.size()) + kernel_image::kMultiboot1HeaderBytes;
}

Bytes stand_in_image(const std::string& first_line, std::uint64_t size) {
  Bytes image = as_bytes(first_line);
  image.reserve(size);
  for (std::uint64_t i = image.size(); i < size; ++i) image.push_back(static_cast<std::uint8_t>(i % 251));
  kernel_image::put_stand_in_header(image, kernel_image::stand_in_header_offset(first_line.size()));
  return image;
}

}  // namespace publish
