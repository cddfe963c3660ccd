#pragma once
// Bytes as the tests write and compare them: hexadecimal text, SHA-256 digests made by
// OpenSSL (a reference independent of the device's own), and the eight-digit numbers of the
// device's number files.
#include <openssl/evp.h>

#include <cstdint>
#include <cstdio>
#include <string>

inline std::string to_hex(const std::string& bytes, bool upper = false) {
  const char* digits = upper ? "0123456789ABCDEF" : "0123456789abcdef";
  std::string out;
  for (unsigned char c : bytes) {
    out.push_back(digits[c >> 4]);
    out.push_back(digits[c & 15]);
  }
  return out;
}

// Pairs of hexadecimal digits as bytes; for texts the test itself wrote.
inline std::string unhex(const std::string& text) {
  std::string out;
  for (std::size_t i = 0; i + 1 < text.size(); i += 2)
    out.push_back(static_cast<char>(std::stoi(text.substr(i, 2), nullptr, 16)));
  return out;
}

inline std::string sha256_hex(const std::string& data) {
  unsigned char digest[32];
  unsigned int len = 0;
  EVP_Digest(data.data(), data.size(), digest, &len, EVP_sha256(), nullptr);
  return to_hex(std::string(reinterpret_cast<char*>(digest), sizeof digest));
}

inline std::string eight_digits(std::uint64_t v) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "%08llu", static_cast<unsigned long long>(v % 100000000));
  return buf;
}
