#include "trust/keys.h"

#include "runtime/files.h"
#include "runtime/text.h"
#include "trust/catalog_text.h"
#include "trust/ed25519.h"

namespace ota {

TrustState trust;

namespace {

bool read_key_file(const char* path, u8 out[kKeyBytes]) {
  return read_file(path, out, kKeyBytes) == static_cast<i64>(kKeyBytes);
}

}  // namespace

u64 read_installed_version() { return read_number_file(kInstalledVersionPath); }
bool write_installed_version(u64 version) { return write_number_file(kInstalledVersionPath, version); }
u64 read_key_generation() { return read_number_file(kKeyGenerationPath); }
bool write_key_generation(u64 generation) { return write_number_file(kKeyGenerationPath, generation); }

bool load_trusted_keys() {
  // The key file is kept with replace_file when a key change is accepted.
  if (read_replaced_file(kTrustedKeyPath, trust.trusted_key, kKeyBytes) != static_cast<i64>(kKeyBytes)) return false;
  trust.stored_generation = read_key_generation();
  trust.current_generation = trust.stored_generation;
  trust.spare_present = read_key_file(kSpareKeyPath, trust.spare_key);
  return true;
}

bool spare_key_file_present() {
  u8 key[kKeyBytes];
  return read_key_file(kSpareKeyPath, key);
}

u32 hex_digit_value(u8 c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return 16;
}

bool hex_decode(const char* text, u8* out, usize n) {
  for (usize i = 0; i < n; i++) {
    u32 high = hex_digit_value(static_cast<u8>(text[2 * i]));
    if (high > 15) return false;
    u32 low = hex_digit_value(static_cast<u8>(text[2 * i + 1]));
    if (low > 15) return false;
    out[i] = static_cast<u8>(high << 4 | low);
  }
  return text[2 * n] == 0;
}

void follow_key_chain() {
  trust.chain_broken = false;
  u64 index = 0;
  for (;;) {
    const char* line = find_catalog_line(kChainTag, text_length(kChainTag), index);
    if (line == nullptr) return;
    char generation[kGenerationFieldBytes];
    if (!line_field(line, 0, generation, sizeof generation) ||
        parse_decimal(generation) != trust.current_generation + 1) {
      index++;
      continue;
    }
    char key_text[kKeyFieldBytes];
    char signature_text[kSignatureFieldBytes];
    u8 new_key[kKeyBytes];
    u8 signature[kSignatureBytes];
    if (!line_field(line, 1, key_text, sizeof key_text) || !line_field(line, 2, signature_text, sizeof signature_text) ||
        !hex_decode(key_text, new_key, kKeyBytes) || !hex_decode(signature_text, signature, kSignatureBytes)) {
      trust.chain_broken = true;
      return;
    }
    // The signed text: "tavi-schluessel", TAB, the new generation, TAB, the key field as
    // it stands in the line (its letters' case kept), no line end.
    char signed_text[text_length(kChainSignedPrefix) + 1 + kDecimalBytes + kKeyFieldBytes];
    usize len = str_copy(signed_text, kChainSignedPrefix);
    len += format_decimal(trust.current_generation + 1, signed_text + len, 0);
    len = str_append_char(signed_text, len, '\t');
    len = str_append_at(signed_text, len, key_text);
    const u8* text = reinterpret_cast<const u8*>(signed_text);
    bool accepted = ed25519_verify(trust.trusted_key, text, len, signature) ||
                    (trust.spare_present && ed25519_verify(trust.spare_key, text, len, signature));
    if (!accepted) {
      trust.chain_broken = true;
      return;
    }
    mem_copy(trust.trusted_key, new_key, kKeyBytes);
    trust.current_generation++;
    index = 0;  // the next generation is looked for from the top, with the new key
  }
}

bool verify_catalog_signature(const u8* message, usize length) {
  trust.spare_key_used = false;
  if (ed25519_verify(trust.trusted_key, message, length, trust.signature)) return true;
  if (!trust.spare_present) return false;
  if (!ed25519_verify(trust.spare_key, message, length, trust.signature)) return false;
  trust.spare_key_used = true;
  return true;
}

}  // namespace ota
