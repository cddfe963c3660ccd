#pragma once
// Small helpers of the publisher: the error it stops with, whole-file reading, hex text,
// SHA-256 and the strict number reader used for every number given on the command line.
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace publish {

using Bytes = std::vector<std::uint8_t>;

// Every refusal travels as this exception up to main, which prints it after
// "ota-publish: " and exits with status 1. Nothing is written before the last check, so an
// error never leaves a half-made source behind.
class Error : public std::runtime_error {
 public:
  explicit Error(const std::string& message) : std::runtime_error(message) {}
};

// A mistake in the command line itself (unknown option, missing value); exit status 2.
class UsageError : public std::runtime_error {
 public:
  explicit UsageError(const std::string& message) : std::runtime_error(message) {}
};

Bytes read_file(const std::string& path, const char* what);
bool file_exists(const std::string& path);
std::string as_string(const Bytes& bytes);
Bytes as_bytes(std::string_view text);

std::string hex_lower(const std::uint8_t* bytes, std::size_t n);
std::string hex_lower(const Bytes& bytes);
// Exactly 2n hex digits of either case into n bytes; false for anything else.
bool hex_decode(std::string_view text, std::uint8_t* out, std::size_t n);
// Decimal digits only, at least one: no sign, no blanks.
bool is_plain_number(std::string_view text);

std::string sha256_hex(const std::uint8_t* data, std::size_t n);
std::string sha256_hex(const Bytes& data);

// A decimal number as an operator writes it: digits only, no sign, no blanks, at least one
// digit, and no more than max_value. `what` names the option in the error.
std::uint64_t parse_number(std::string_view text, const char* what, std::uint64_t max_value);

std::string base_name(const std::string& path);
// A value from a source as a report line shows it: control characters made visible and very
// long values shortened, so the line stays one readable line.
std::string visible(std::string_view value);
// The same, quoted, for error messages.
std::string shown(std::string_view value);
// A name with "a" or "an" before it as it is spoken: key type names are mostly read letter
// by letter ("an RSA key", "a DSA key", "an ECDSA key"), other words as words ("a secret").
std::string with_article(std::string_view name);

}  // namespace publish
