// The key-change walk over a fuzzed catalog, with fixed keys so that valid steps can be
// reached: the trusted key and the spare key are made from fixed seeds, and the seed
// corpus carries chain lines signed with them and with the keys of generations 1 to 8
// (seeds 0x31 to 0x38; see make_corpus.py).
//
// Input: a flag byte (bit 0: the spare key is present; bits 1-2: the stored generation g,
// whose key is trusted at the start: the 0x11 key for 0, the generation's own key else),
// then the catalog text (up to 32,767 bytes).
//
// Checked: the generation never goes back; when it moved on, the trusted key changed; and
// the whole outcome (generation, trusted key, broken flag) equals a walk written again
// here from the rules, with OpenSSL as the verifier.
#include <openssl/evp.h>
#include <string.h>

#include <array>

#include "fuzz_support.h"
#include "trust/catalog_text.h"
#include "trust/keys.h"

namespace {

using Key = std::array<uint8_t, 32>;

Key public_key_of(uint8_t fill) {
  uint8_t seed[32];
  memset(seed, fill, sizeof seed);
  EVP_PKEY* pkey = EVP_PKEY_new_raw_private_key(EVP_PKEY_ED25519, nullptr, seed, sizeof seed);
  Key k{};
  size_t len = k.size();
  if (pkey == nullptr || EVP_PKEY_get_raw_public_key(pkey, k.data(), &len) != 1) abort();
  EVP_PKEY_free(pkey);
  return k;
}

bool openssl_verify(const Key& key, const std::string& message, const uint8_t signature[64]) {
  EVP_PKEY* pkey = EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr, key.data(), key.size());
  if (pkey == nullptr) return false;
  EVP_MD_CTX* ctx = EVP_MD_CTX_new();
  bool ok = EVP_DigestVerifyInit(ctx, nullptr, nullptr, nullptr, pkey) == 1 &&
            EVP_DigestVerify(ctx, signature, 64, reinterpret_cast<const uint8_t*>(message.data()), message.size()) == 1;
  EVP_MD_CTX_free(ctx);
  EVP_PKEY_free(pkey);
  return ok;
}

Key generation_keys[4];  // trusted at the start for stored generations 0 to 3
Key spare_seed_key;

// Field n of the line at `at` (ends at TAB, LF or the end, cut to capacity - 1 bytes).
bool field(const std::string& text, size_t at, int n, size_t capacity, std::string* out) {
  out->clear();
  size_t p = at;
  for (int k = 0; k < n; k++) {
    while (p < text.size() && text[p] != '\t' && text[p] != '\n') p++;
    if (p >= text.size() || text[p] == '\n') return false;
    p++;
  }
  while (p < text.size() && text[p] != '\t' && text[p] != '\n' && out->size() + 1 < capacity) out->push_back(text[p++]);
  return !out->empty();
}

std::string as_string(const std::string& s) { return s.substr(0, strnlen(s.c_str(), s.size())); }

// Exactly 2n hex digits of either case, and nothing after them.
bool hex(const std::string& s, uint8_t* out, size_t n) {
  if (s.size() != 2 * n) return false;
  for (size_t i = 0; i < 2 * n; i++) {
    char c = s[i];
    int v = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
    if (v < 0) return false;
    if (i % 2 == 0) out[i / 2] = static_cast<uint8_t>(v << 4);
    else out[i / 2] |= static_cast<uint8_t>(v);
  }
  return true;
}

struct Walk {
  Key key;
  uint64_t generation;
  bool broken;
};

Walk reference_walk(const std::string& text, Key key, uint64_t generation, bool spare) {
  std::vector<size_t> lines;
  for (size_t i = 0; i < text.size(); i++) {
    if ((i == 0 || text[i - 1] == '\n') && text.compare(i, 6, "kette\t") == 0 && i + 6 <= text.size()) {
      lines.push_back(i + 6);
    }
  }
  for (size_t index = 0; index < lines.size();) {
    std::string g, key_text, sig_text;
    if (!field(text, lines[index], 0, 24, &g) || reference_decimal(g) != generation + 1) {
      index++;
      continue;
    }
    Key next;
    uint8_t sig[64];
    // The fields are strings: a zero byte ends them where it stands.
    if (!field(text, lines[index], 1, 80, &key_text) || !field(text, lines[index], 2, 140, &sig_text) ||
        !hex(as_string(key_text), next.data(), 32) || !hex(as_string(sig_text), sig, 64)) {
      return {key, generation, true};
    }
    key_text = key_text.substr(0, strnlen(key_text.c_str(), key_text.size()));
    std::string message = "tavi-schluessel\t" + std::to_string(generation + 1) + "\t" + key_text;
    if (!openssl_verify(key, message, sig) && !(spare && openssl_verify(spare_seed_key, message, sig))) {
      return {key, generation, true};
    }
    key = next;
    generation++;
    index = 0;
  }
  return {key, generation, false};
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  generation_keys[0] = public_key_of(0x11);
  for (int g = 1; g < 4; g++) generation_keys[g] = public_key_of(static_cast<uint8_t>(0x30 + g));
  spare_seed_key = public_key_of(0x22);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  bool spare = data[0] & 1;
  uint64_t stored = (data[0] >> 1) & 3;
  const Key& trusted_seed_key = generation_keys[stored];
  data++;
  size--;
  std::string text = hold_catalog(data, size);

  memcpy(ota::trust.trusted_key, trusted_seed_key.data(), 32);
  memcpy(ota::trust.spare_key, spare_seed_key.data(), 32);
  ota::trust.spare_present = spare;
  ota::trust.stored_generation = stored;
  ota::trust.current_generation = stored;
  ota::trust.chain_broken = true;  // the walk must clear it itself

  ota::follow_key_chain();
  if (getenv("OTA_FUZZ_VERBOSE") != nullptr) {
    fprintf(stderr, "generation %llu -> %llu, chain %s\n", static_cast<unsigned long long>(stored),
            static_cast<unsigned long long>(ota::trust.current_generation), ota::trust.chain_broken ? "broken" : "sound");
  }

  FUZZ_CHECK(ota::trust.current_generation >= stored);
  FUZZ_CHECK(ota::trust.stored_generation == stored);
  if (ota::trust.current_generation > stored) {
    FUZZ_CHECK(memcmp(ota::trust.trusted_key, trusted_seed_key.data(), 32) != 0);
  } else {
    FUZZ_CHECK(memcmp(ota::trust.trusted_key, trusted_seed_key.data(), 32) == 0);
  }
  FUZZ_CHECK(memcmp(ota::trust.spare_key, spare_seed_key.data(), 32) == 0);

  Walk expected = reference_walk(text, trusted_seed_key, stored, spare);
  if (getenv("OTA_FUZZ_VERBOSE") != nullptr) {
    fprintf(stderr, "the rules say: generation %llu, chain %s\n", static_cast<unsigned long long>(expected.generation),
            expected.broken ? "broken" : "sound");
  }
  FUZZ_CHECK(ota::trust.current_generation == expected.generation);
  FUZZ_CHECK(memcmp(ota::trust.trusted_key, expected.key.data(), 32) == 0);
  FUZZ_CHECK(ota::trust.chain_broken == expected.broken);
  return 0;
}
