#pragma once
// Hex helpers and a reader for the NIST SHAVS response files, shared by the hash and
// signature tests.
#include <stdint.h>

#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

using Bytes = std::vector<uint8_t>;

inline Bytes from_hex(const std::string& hex) {
  if (hex.size() % 2 != 0) throw std::runtime_error("odd hex length: " + hex);
  Bytes out(hex.size() / 2);
  for (size_t i = 0; i < out.size(); i++) out[i] = static_cast<uint8_t>(std::stoul(hex.substr(2 * i, 2), nullptr, 16));
  return out;
}

inline std::string to_hex(const uint8_t* bytes, size_t n) {
  static const char digits[] = "0123456789abcdef";
  std::string s;
  for (size_t i = 0; i < n; i++) {
    s += digits[bytes[i] >> 4];
    s += digits[bytes[i] & 15];
  }
  return s;
}
inline std::string to_hex(const Bytes& b) { return to_hex(b.data(), b.size()); }

inline std::string vector_path(const std::string& name) { return std::string(OTA_TEST_VECTORS_DIR) + "/" + name; }

inline std::string read_text(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

struct ShaVector {
  size_t bits;
  Bytes message;
  std::string digest_hex;
};

// "Len = <bits>", "Msg = <hex>", "MD = <hex>" records; for Len = 0 the Msg line holds
// "00", which is not part of the message. Lines may end in CR LF.
inline std::vector<ShaVector> read_shavs(const std::string& name) {
  std::istringstream in(read_text(vector_path(name)));
  std::vector<ShaVector> out;
  ShaVector current{};
  std::string line;
  auto value = [](const std::string& l) { return l.substr(l.find('=') + 2); };
  while (std::getline(in, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.rfind("Len = ", 0) == 0) {
      current = ShaVector{std::stoul(value(line)), {}, {}};
    } else if (line.rfind("Msg = ", 0) == 0) {
      current.message = current.bits == 0 ? Bytes{} : from_hex(value(line));
    } else if (line.rfind("MD = ", 0) == 0) {
      current.digest_hex = value(line);
      if (current.message.size() * 8 != current.bits) throw std::runtime_error("bad record in " + name);
      out.push_back(current);
    }
  }
  return out;
}
