#include "util.h"

#include <openssl/evp.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <fstream>

namespace publish {

Bytes read_file(const std::string& path, const char* what) {
  struct stat st {};
  if (stat(path.c_str(), &st) != 0) {
    throw Error(std::string("cannot read ") + what + " " + shown(path) + ": " + std::strerror(errno));
  }
  if (!S_ISREG(st.st_mode))
    throw Error(std::string("cannot read ") + what + " " + shown(path) + ": not a regular file");
  std::ifstream in(path, std::ios::binary);
  if (!in) throw Error(std::string("cannot read ") + what + " " + shown(path) + ": " + std::strerror(errno));
  Bytes data(static_cast<std::size_t>(st.st_size));
  in.read(reinterpret_cast<char*>(data.data()), static_cast<std::streamsize>(data.size()));
  if (static_cast<std::size_t>(in.gcount()) != data.size() || in.bad()) {
    throw Error(std::string("cannot read ") + what + " " + shown(path) + ": it changed while being read");
  }
  return data;
}

bool file_exists(const std::string& path) {
  struct stat st {};
  return lstat(path.c_str(), &st) == 0;
}

std::string as_string(const Bytes& bytes) { return std::string(bytes.begin(), bytes.end()); }

Bytes as_bytes(std::string_view text) { return Bytes(text.begin(), text.end()); }

std::string hex_lower(const std::uint8_t* bytes, std::size_t n) {
  static const char digits[] = "0123456789abcdef";
  std::string out;
  out.reserve(2 * n);
  for (std::size_t i = 0; i < n; ++i) {
    out.push_back(digits[bytes[i] >> 4]);
    out.push_back(digits[bytes[i] & 15]);
  }
  return out;
}

std::string hex_lower(const Bytes& bytes) { return hex_lower(bytes.data(), bytes.size()); }

static int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool hex_decode(std::string_view text, std::uint8_t* out, std::size_t n) {
  if (text.size() != 2 * n) return false;
  for (std::size_t i = 0; i < n; ++i) {
    int hi = hex_value(text[2 * i]);
    int lo = hex_value(text[2 * i + 1]);
    if (hi < 0 || lo < 0) return false;
    out[i] = static_cast<std::uint8_t>(hi << 4 | lo);
  }
  return true;
}

bool is_plain_number(std::string_view text) {
  if (text.empty()) return false;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
  }
  return true;
}

std::string sha256_hex(const std::uint8_t* data, std::size_t n) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  if (EVP_Digest(data, n, digest, &len, EVP_sha256(), nullptr) != 1 || len != 32) {
    throw Error("SHA-256 failed in libcrypto");
  }
  return hex_lower(digest, 32);
}

std::string sha256_hex(const Bytes& data) { return sha256_hex(data.data(), data.size()); }

std::uint64_t parse_number(std::string_view text, const char* what, std::uint64_t max_value) {
  if (text.empty()) throw Error(std::string(what) + " is empty; a decimal number is needed");
  std::uint64_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') throw Error(std::string(what) + " " + shown(text) + " is not a decimal number");
    unsigned digit = static_cast<unsigned>(c - '0');
    if (value > (max_value - digit) / 10) {
      throw Error(std::string(what) + " " + shown(text) + " is too large; at most " + std::to_string(max_value));
    }
    value = value * 10 + digit;
  }
  return value;
}

std::string base_name(const std::string& path) {
  std::string p = path;
  while (p.size() > 1 && p.back() == '/') p.pop_back();
  std::size_t slash = p.rfind('/');
  return slash == std::string::npos ? p : p.substr(slash + 1);
}

std::string with_article(std::string_view name) {
  if (name.empty()) return "a";
  // Read letter by letter: one letter, or a capital followed by a capital or a digit.
  bool letters = name.size() == 1 || (name[1] >= 'A' && name[1] <= 'Z') || (name[1] >= '0' && name[1] <= '9');
  char first = name[0];
  // Letters whose spoken name begins with a vowel sound: "an F", "an S", "an X".
  std::string_view vowel_sound = letters ? "AEFHILMNORSX" : "AEIOUaeiou";
  bool an = vowel_sound.find(first) != std::string_view::npos;
  return std::string(an ? "an " : "a ") + std::string(name);
}

std::string visible(std::string_view value) {
  constexpr std::size_t kShownMax = 80;  // keeps an error message on one screen line or two
  std::string out;
  std::size_t n = 0;
  for (unsigned char c : value) {
    if (n++ == kShownMax) {
      out += "...";
      break;
    }
    if (c == '\t') {
      out += "\\t";
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\r') {
      out += "\\r";
    } else if (c < 0x20 || c == 0x7f) {
      static const char digits[] = "0123456789abcdef";
      out += "\\x";
      out.push_back(digits[c >> 4]);
      out.push_back(digits[c & 15]);
    } else {
      out.push_back(static_cast<char>(c));
    }
  }
  return out;
}

std::string shown(std::string_view value) { return "\"" + visible(value) + "\""; }

}  // namespace publish
