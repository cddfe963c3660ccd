// SHA-256 and Ed25519 of the device program, built for the host, side by side with
// OpenSSL and libsodium on the same inputs.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <sodium.h>

#include <stdexcept>
#include <vector>

#include "trust/ed25519.h"
#include "trust/sha256.h"
#include "trust/sha512.h"

using namespace ota;

namespace {

std::vector<u8> filled(size_t n) {
  std::vector<u8> b(n);
  for (size_t i = 0; i < n; i++) b[i] = static_cast<u8>(i * 131 + 7);
  return b;
}

void sha256_ours(benchmark::State& state, bool portable) {
  auto data = filled(static_cast<size_t>(state.range(0)));
  u8 out[kSha256DigestBytes];
  sha256_force_portable(portable);
  for (auto _ : state) {
    sha256_init();
    sha256_update(data.data(), data.size());
    sha256_final(out);
    benchmark::DoNotOptimize(out);
  }
  sha256_force_portable(false);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

void BM_Sha256_Ours_ShaExtensions(benchmark::State& state) {
  if ((cpu_feature_bits() & (kCpuSha | kCpuSse41 | kCpuSsse3)) != (kCpuSha | kCpuSse41 | kCpuSsse3)) {
    state.SkipWithError("no SHA extensions on this processor");
    return;
  }
  sha256_ours(state, false);
}
void BM_Sha256_Ours_Portable(benchmark::State& state) { sha256_ours(state, true); }

void BM_Sha256_OpenSsl(benchmark::State& state) {
  auto data = filled(static_cast<size_t>(state.range(0)));
  unsigned char out[EVP_MAX_MD_SIZE];
  unsigned int n = 0;
  for (auto _ : state) {
    EVP_Digest(data.data(), data.size(), out, &n, EVP_sha256(), nullptr);
    benchmark::DoNotOptimize(out);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

BENCHMARK(BM_Sha256_Ours_ShaExtensions)->Arg(64)->Arg(64 << 10)->Arg(1 << 20);
BENCHMARK(BM_Sha256_Ours_Portable)->Arg(64)->Arg(64 << 10)->Arg(1 << 20);
BENCHMARK(BM_Sha256_OpenSsl)->Arg(64)->Arg(64 << 10)->Arg(1 << 20);

void BM_Sha512_Ours(benchmark::State& state) {
  auto data = filled(static_cast<size_t>(state.range(0)));
  u8 out[kSha512DigestBytes];
  for (auto _ : state) {
    Sha512 context;
    sha512_init(context);
    sha512_update(context, data.data(), data.size());
    sha512_final(context, out);
    benchmark::DoNotOptimize(out);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

void BM_Sha512_OpenSsl(benchmark::State& state) {
  auto data = filled(static_cast<size_t>(state.range(0)));
  unsigned char out[EVP_MAX_MD_SIZE];
  unsigned int n = 0;
  for (auto _ : state) {
    EVP_Digest(data.data(), data.size(), out, &n, EVP_sha512(), nullptr);
    benchmark::DoNotOptimize(out);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

// A signed catalog is at most 32767 bytes; 32 KiB stands for the largest.
BENCHMARK(BM_Sha512_Ours)->Arg(32 << 10);
BENCHMARK(BM_Sha512_OpenSsl)->Arg(32 << 10);

// One key pair and signature made with libsodium; every verifier checks the same bytes.
struct SignedMessage {
  u8 key[crypto_sign_PUBLICKEYBYTES];
  u8 signature[crypto_sign_BYTES];
  std::vector<u8> message;
  explicit SignedMessage(size_t length) : message(filled(length)) {
    if (sodium_init() < 0) throw std::runtime_error("sodium_init");
    u8 secret[crypto_sign_SECRETKEYBYTES];
    u8 seed[crypto_sign_SEEDBYTES];
    for (size_t i = 0; i < sizeof seed; i++) seed[i] = static_cast<u8>(i + 1);
    crypto_sign_seed_keypair(key, secret, seed);
    crypto_sign_detached(signature, nullptr, message.data(), message.size(), secret);
  }
};

void BM_Ed25519Verify_Ours(benchmark::State& state) {
  SignedMessage s(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    int ok = ed25519_verify(s.key, s.message.data(), s.message.size(), s.signature);
    if (ok != 1) state.SkipWithError("signature refused");
    benchmark::DoNotOptimize(ok);
  }
}

void BM_Ed25519Verify_OpenSsl(benchmark::State& state) {
  SignedMessage s(static_cast<size_t>(state.range(0)));
  EVP_PKEY* pkey = EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr, s.key, sizeof s.key);
  EVP_MD_CTX* md = EVP_MD_CTX_new();
  for (auto _ : state) {
    int ok = EVP_DigestVerifyInit(md, nullptr, nullptr, nullptr, pkey) == 1 &&
             EVP_DigestVerify(md, s.signature, sizeof s.signature, s.message.data(), s.message.size()) == 1;
    if (!ok) state.SkipWithError("signature refused");
    benchmark::DoNotOptimize(ok);
  }
  EVP_MD_CTX_free(md);
  EVP_PKEY_free(pkey);
}

void BM_Ed25519Verify_Libsodium(benchmark::State& state) {
  SignedMessage s(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    int ok = crypto_sign_verify_detached(s.signature, s.message.data(), s.message.size(), s.key) == 0;
    if (!ok) state.SkipWithError("signature refused");
    benchmark::DoNotOptimize(ok);
  }
}

BENCHMARK(BM_Ed25519Verify_Ours)->Arg(64)->Arg(32 << 10);
BENCHMARK(BM_Ed25519Verify_OpenSsl)->Arg(64)->Arg(32 << 10);
BENCHMARK(BM_Ed25519Verify_Libsodium)->Arg(64)->Arg(32 << 10);

}  // namespace
