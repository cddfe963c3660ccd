#pragma once
// The device's trusted key, its spare key, the key generation and the installed version,
// and the walk along the key changes a catalog carries.

#include "runtime/syscall.h"
#include "trust/ed25519.h"

namespace ota {

constexpr usize kKeyBytes = kPublicKeyBytes;


constexpr const char* kTrustedKeyPath = "/system/schluessel.pub";
constexpr const char* kSpareKeyPath = "/system/ersatz.pub";
constexpr const char* kKeyGenerationPath = "/system/SCHLUESSELGEN";
constexpr const char* kInstalledVersionPath = "/system/FASSUNG";

struct TrustState {
  u8 trusted_key[kKeyBytes];
  u8 spare_key[kKeyBytes];
  bool spare_present;
  u64 stored_generation;
  u64 current_generation;
  bool chain_broken;
  bool spare_key_used;
  u8 signature[kSignatureBytes];
};
extern TrustState trust;

u64 read_installed_version();
bool write_installed_version(u64 version);
u64 read_key_generation();
bool write_key_generation(u64 generation);
// False when no trusted key can be read.
bool load_trusted_keys();
// Whether 32 bytes can be read from the spare key file.
bool spare_key_file_present();
u32 hex_digit_value(u8 c);
// n bytes from 2n hex digits (either case) that end the text; false for anything else.
bool hex_decode(const char* text, u8* out, usize n);
void follow_key_chain();
bool verify_catalog_signature(const u8* message, usize length);

}  // namespace ota
